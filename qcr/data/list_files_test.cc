#include "qcr/data/list_files.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "basic/files.h"
#include "qcr/data/paxos_config.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

constexpr int kPort = 1191;  // what an empty port field stands for, for every reader

TEST(NodeListText, AcceptedAndRejectedRecords) {
  const struct {
    const char* line;
    bool ok;
    NodeEntry entry;
  } cases[] = {
      {"3,1,10.0.0.3,,node3", true, {3, 1, "node3", "10.0.0.3", kPort}},
      {"4,0,10.0.0.4,1200,node4", true, {4, 0, "node4", "10.0.0.4", 1200}},
      {"5,3,::1,,a,b,c", true, {5, 1, "a,b,c", "::1", kPort}},  // flag keeps bit 0
      {"6,2,h,,", true, {6, 0, "", "h", kPort}},
      {"7,1,h,", false},          // four fields
      {",1,h,,n", false},         // id empty
      {"8,x,h,,n", false},        // flag not digits
      {"9,1,h,12a,n", false},     // port not digits
      {"99999999999,1,h,,n", false},
  };
  for (const auto& c : cases) {
    NodeList list;
    const int rc = parseNodeListText(std::string(c.line) + "\n", &list);
    EXPECT_EQ(rc, c.ok ? 0 : 5) << c.line;
    ASSERT_EQ(list.size(), c.ok ? 1u : 0u) << c.line;
    if (c.ok) {
      EXPECT_EQ(list[0], c.entry) << c.line;
    }
  }
}

TEST(NodeListText, BadRecordsAreSkippedAndGoodOnesKept) {
  NodeList list;
  EXPECT_EQ(parseNodeListText("1,0,a,,x\nbad\n\n2,0,b,,y", &list), 5);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].name, "y");
  EXPECT_EQ(nodeListText(list), "1,0,a,,x\n2,0,b,,y\n");
}

TEST(NodeListText, WhatMayBecomeTheCommittedList) {
  for (const char* text : {"1,0,a,,x\n", "1,0,a,,x\n2,1,a,1200,y\n3,0,b,,x\n\n"}) {
    EXPECT_EQ(checkNodeListText(text), 0) << text;
  }
  for (const char* text : {"", "\n", "JUNK\n", "1,0,a,,x\nJUNK\n", "0,0,a,,x\n", "1,0,a,0,x\n",
                           "1,0,a,65536,x\n", "1,0,a,,x\n1,0,b,,y\n", "1,0,a,,x\n2,0,a,1191,y\n"}) {
    EXPECT_EQ(checkNodeListText(text), EINVAL) << text;
  }
  EXPECT_EQ(checkDiskListText(""), 0);
  EXPECT_EQ(checkDiskListText("1,0,/dev/a\n1,1,/dev/b\n"), 0);
  EXPECT_EQ(checkDiskListText("1,0,/dev/a\nJUNK\n"), EINVAL);
}

TEST(DiskListText, LaterRecordReplacesEarlierOfTheSameId) {
  DiskList list;
  EXPECT_EQ(parseDiskListText("2,0,/dev/b\n1,3,/dev/a,x\n2,1,/dev/c\n", &list), 0);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], (DiskEntry{1, 1, "/dev/a,x"}));
  EXPECT_EQ(list[1], (DiskEntry{2, 1, "/dev/c"}));
  EXPECT_EQ(parseDiskListText("1,0\nx,0,l\n", &list), 5);
  EXPECT_TRUE(list.empty());
}

TEST(ListFiles, WriteThenReadAndMissingFile) {
  const test::ScopedTempDir tmp;
  const std::string& dir = tmp.path();
  const NodeList nodes = {{1, 0, "n1", "10.0.0.1", kPort}, {2, 1, "n,2", "10.0.0.2", 1200}};
  const DiskList disks = {{1, 0, "/dev/sda"}, {3, 1, "label, with comma"}};
  ASSERT_EQ(writeNodeList(dir + "/qcr.nodes", nodes), 0);
  ASSERT_EQ(writeDiskList(dir + "/qcr.disks", disks), 0);
  std::string text;
  ASSERT_EQ(readFile(dir + "/qcr.nodes", &text), 0);
  EXPECT_EQ(text, "1,0,10.0.0.1,,n1\n2,1,10.0.0.2,1200,n,2\n");
  NodeList nodesBack;
  DiskList disksBack;
  EXPECT_EQ(readNodeList(dir + "/qcr.nodes", &nodesBack), 0);
  EXPECT_EQ(readDiskList(dir + "/qcr.disks", &disksBack), 0);
  EXPECT_EQ(nodesBack, nodes);
  EXPECT_EQ(disksBack, disks);
  EXPECT_EQ(readNodeList(dir + "/absent", &nodesBack), 2);
  EXPECT_TRUE(nodesBack.empty());
  // The initial configuration of these lists.
  EXPECT_EQ(PaxosConfig(nodes, disks, 1).toString(),
            "<[(N1,S0,V0,L1), (N2,S1,V0,L1)] [1, 3] min=1>");
}

}  // namespace
}  // namespace qcr
