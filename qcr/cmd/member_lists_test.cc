#include "qcr/cmd/member_lists.h"

#include <gtest/gtest.h>

#include <map>

#include "qcr/coding/result.h"

namespace qcr {
namespace {

TEST(MemberLists, SplitHostAndPort) {
  const struct {
    const char* text;
    HostPort want;
  } cases[] = {
      {"h", {"h", 1191}},           {"h:1200", {"h", 1200}},
      {"[fe80::1]:1191", {"fe80::1", 1191}}, {"[fe80::1]", {"fe80::1", 1191}},
      {"[::1]:2:3", {"::1", 3}},    {"h:x", {"h", 0}},
      {"[h]x", {"h", 0}},           {"h:", {"h", 0}},
      {"h:0", {"h", 0}},            {"h:65536", {"h", 0}},
      {"h:12ab", {"h", 0}},         {":5", {"", 5}},
      {"[]", {"", 1191}},
  };
  for (const auto& c : cases) EXPECT_EQ(splitHostPort(c.text, 1191), c.want) << c.text;
}

class NodeListParse : public ::testing::Test {
 protected:
  int parse(const StringList& items) {
    msg_.clear();
    return parseNodeList(items, current_, 1191, resolver_, &result_, &msg_);
  }

  NodeList current_ = {{1, 0, "node1", "10.0.0.1", 1191},
                       {2, 1, "node2", "10.0.0.2", 1191},
                       {5, 0, "node5", "10.0.0.5", 1300}};
  std::map<std::string, std::string> hosts_ = {
      {"node1", "10.0.0.1"}, {"newa", "10.9.9.1"}, {"newb", "10.9.9.2"},
      {"node5", "10.0.0.5"}, {"10.0.0.2", "10.0.0.2"}, {"fe80::1", "fe80::1"}};
  HostResolver resolver_ = [this](const std::string& host, std::string* ipP) {
    const auto it = hosts_.find(host);
    if (it == hosts_.end()) return 113;
    *ipP = it->second;
    return 0;
  };
  NodeList result_;
  std::string msg_;
};

TEST_F(NodeListParse, ReconcilesItemsAndNumbersNewNodesAfterTheLargestId) {
  ASSERT_EQ(parse({"1", "newa", "7=newb:1200", "node5:1300", "[fe80::1]", "10.0.0.2"}), 0)
      << msg_;
  EXPECT_EQ(msg_, "");
  const NodeList want = {{1, 0, "node1", "10.0.0.1", 1191},   {8, 0, "newa", "10.9.9.1", 1191},
                         {7, 0, "newb", "10.9.9.2", 1200},    {5, 0, "node5", "10.0.0.5", 1300},
                         {9, 0, "fe80::1", "fe80::1", 1191}, {2, 0, "10.0.0.2", "10.0.0.2", 1191}};
  EXPECT_EQ(result_, want);

  // A known id under its own name at a new address: reported, and the new one used.
  hosts_["node1"] = "10.0.0.99";
  ASSERT_EQ(parse({"1=node1"}), 0);
  EXPECT_EQ(msg_, "Address of node 1 in '1=node1' changed from 10.0.0.1 to 10.0.0.99\n");
  EXPECT_EQ(result_.at(0).addr, "10.0.0.99");
}

TEST_F(NodeListParse, ReportsEveryBadItem) {
  const struct {
    StringList items;
    const char* messages;
  } cases[] = {
      {{"3="}, "Missing host in '3='\n"},
      {{""}, "Missing host in ''\n"},
      {{"0=h"}, "Invalid node id 0 in '0=h'\n"},
      {{"0"}, "invalid node id 0\n"},
      {{"00"}, "invalid node id 00\n"},
      {{"9"}, "Unknwon node id 9\n"},
      {{"99999999999"}, "Unknwon node id 99999999999\n"},
      {{"bad"}, "Unknown host 'bad'\n"},
      {{"newa:x"}, "Invalid port in 'newa:x'\n"},
      {{"1=newa"}, "Node id 1 in '1=newa' already known as 'node1'\n"},
      {{"1", "1"}, "Node id 1 given twice in '1'\n"},
      {{"newa", "newa"}, "Node address 10.9.9.1 port 1191 given twice in 'newa'\n"},
      {{"0", "newa", "3=", "bad:1"},
       "invalid node id 0\nMissing host in '3='\nUnknown host 'bad'\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse(c.items), EINVAL) << c.messages;
    EXPECT_EQ(msg_, c.messages);
  }
}

TEST(MemberLists, DiskLabels) {
  for (const char* good : {"d1", "nsd_1:tb", "a.b-c", "x:generic-2", "_x"}) {
    EXPECT_TRUE(isValidDiskLabel(good)) << good;
  }
  for (const char* bad : {"", ":t", "d:", "-d", ".d", "/abs", "a/b", "d:t:u", "a b", "d:t.x"}) {
    EXPECT_FALSE(isValidDiskLabel(bad)) << bad;
  }
  EXPECT_TRUE(isValidDiskLabel(std::string(64, 'a')));
  EXPECT_FALSE(isValidDiskLabel(std::string(65, 'a')));
}

TEST(MemberLists, ParseDiskLists) {
  DiskList disks;
  std::string msg;
  ASSERT_EQ(parseDiskList({"/abs/d", "rel", "lbl:tb"}, "/dir", &disks, &msg), 0);
  EXPECT_EQ(disks, (DiskList{{1, 0, "/abs/d"}, {2, 0, "/dir/rel"}, {3, 0, "/dir/lbl:tb"}}));
  ASSERT_EQ(parseDiskList({"tb1", "/p"}, "", &disks, &msg), 0);
  EXPECT_EQ(disks, (DiskList{{1, 0, "tb1"}, {2, 0, "/p"}}));
  EXPECT_EQ(msg, "");
  EXPECT_EQ(parseDiskList({"a/b", "", "tb1", "tb1"}, "", &disks, &msg), EINVAL);
  EXPECT_EQ(msg, "Invalid disk label 'a/b'\nInvalid disk label ''\nDisk 'tb1' given twice\n");
  msg.clear();
  EXPECT_EQ(parseDiskList({"../x", "a/../../y", "ok/..x"}, "/dir", &disks, &msg), EINVAL);
  EXPECT_EQ(msg, "Invalid disk label '../x'\nInvalid disk label 'a/../../y'\n");
}

TEST(MemberLists, MinQuorumNodes) {
  const char* noDisks =
      "Warning: No tiebreaker disks specified, using minOuorumNodes default value (1)\n";
  const char* withDisks = "Warning: Tiebreaker disks specified, but minOuorumNodes less or "
                          "equal zero, using default value (1)\n";
  const struct {
    int nodes, disks, minIn, rc, minOut;
    const char* msg;
  } cases[] = {
      {3, 0, 1, 0, 1, ""},       {1, 1, 1, 0, 1, ""},      {3, 0, 0, 0, 1, noDisks},
      {3, 0, 2, 0, 1, noDisks},  {3, 2, 0, 0, 1, withDisks}, {3, 2, -1, 0, 1, withDisks},
      {3, 2, 2, 0, 2, ""},       {3, 2, 3, EINVAL, 3, "minQuorumNodes must be less than 3\n"},
  };
  for (const auto& c : cases) {
    int32_t minQ = c.minIn;
    std::string msg;
    EXPECT_EQ(checkMinQuorumNodes(c.nodes, c.disks, &minQ, &msg), c.rc) << c.minIn;
    EXPECT_EQ(minQ, c.minOut) << c.minIn;
    EXPECT_EQ(msg, c.msg);
  }
}

}  // namespace
}  // namespace qcr
