#include "qcr/cmd/membership.h"

#include <gtest/gtest.h>

#include "qcr/coding/result.h"

namespace qcr {
namespace {

NodeEntry node(int32_t id, uint8_t flag = 0) {
  return {id, flag, "n" + std::to_string(id), "10.0.0." + std::to_string(id), 1191};
}

NodeList nodes(std::initializer_list<int32_t> ids) {
  NodeList list;
  for (int32_t id : ids) list.push_back(node(id));
  return list;
}

PaxosConfig slots(std::vector<ConfigNodeEntry> entries, std::vector<int32_t> disks = {},
                  int32_t minNodes = -1) {
  PaxosConfig config;
  config.nodes = std::move(entries);
  config.disks = std::move(disks);
  config.minNodes = minNodes;
  return config;
}

TEST(Membership, ClassifyKeepsOldActiveNodesMarkedUntilTheChangeIsDone) {
  // 3 holds no slot: dropped at once. 1 and 5 hold slots: kept, marked.
  const PaxosConfig config = slots({{1, 0, 0, true}, {2, 1, 0, true}, {3, -1, 0, true},
                                    {5, 2, 0, true}});
  const NodeChangePlan plan = classifyNodes(nodes({1, 2, 3, 5}), nodes({2, 4, 6}), config);
  EXPECT_EQ(plan.intermediate, (NodeList{node(2), node(4), node(6), node(1, kNodeRemoved),
                                         node(5, kNodeRemoved)}));
  EXPECT_EQ(plan.added, nodes({4, 6}));
  EXPECT_EQ(plan.initTargets, nodes({4, 6}));
  EXPECT_EQ(plan.nCommon, 1);
  EXPECT_EQ(plan.nOldActive, 2);
  EXPECT_EQ(plan.nOldInactive, 1);
  // A listed node without a slot (a change stopped before its init) is initialised.
  EXPECT_EQ(classifyNodes(nodes({1, 3}), nodes({1, 3}), config).initTargets, nodes({3}));

  bool removed = false;
  EXPECT_EQ(withoutRemoved(plan.intermediate, &removed), nodes({2, 4, 6}));
  EXPECT_TRUE(removed);
  EXPECT_EQ(withoutRemoved(nodes({1}), &removed), nodes({1}));
  EXPECT_FALSE(removed);
}

TEST(Membership, RequiredQuorum) {
  const PaxosConfig none;
  EXPECT_EQ(requiredQuorum(none, 4, 0), 3);
  EXPECT_EQ(requiredQuorum(none, 4, 1), 2);
  EXPECT_EQ(requiredQuorum(none, 4, 2), 1);
  EXPECT_EQ(requiredQuorum(none, 5, 0), 3);
  for (int option : {0, 1, 2}) {
    EXPECT_EQ(requiredQuorum(slots({}, {1}, 2), 4, option), 2);
    EXPECT_EQ(requiredQuorum(slots({}, {1}, -1), 4, option), 1);
  }
}

TEST(Membership, QuorumCountsUpNodesOrOnlyJoinedOnesOnceAnyNodeJoined) {
  const NodeList all = nodes({1, 2, 3, 4});
  const NodeList next = nodes({1, 2, 3});
  std::string msg;
  EXPECT_EQ(evaluateQuorum(all, next, {{1, 2}, {2, 3}}, 2, &msg), 0);
  EXPECT_EQ(msg, "");
  // Node 3 does not answer (no status).
  EXPECT_EQ(evaluateQuorum(all, next, {{1, 2}, {2, 1}}, 2, &msg), E_NO_QUORUM);
  EXPECT_EQ(msg, "No QCR quorum in new node set (1 of 3 nodes are up; 2 are required):\n"
                 "  up     n1 (10.0.0.1)\n  down   n2 (10.0.0.2)\n  down   n3 (10.0.0.3)\n");
  msg.clear();
  // Node 4, outside the new set, joined: only joined nodes count.
  EXPECT_EQ(evaluateQuorum(all, next, {{1, 4}, {2, 2}, {3, 2}, {4, 4}}, 2, &msg), E_NO_QUORUM);
  EXPECT_EQ(msg, "No KLFS quorum in new node set (1 of 3 nodes are joined; 2 are required):\n"
                 "  joined n1 (10.0.0.1)\n  up     n2 (10.0.0.2)\n  up     n3 (10.0.0.3)\n");
  EXPECT_EQ(evaluateQuorum(all, next, {{1, 4}, {2, 4}}, 2, &msg), 0);
}

TEST(Membership, SlotsAreKeptAndNewNodesTakeTheLowestFreeOne) {
  const PaxosConfig config = slots({{1, 0, 2, true}, {2, 1, 3, false}, {5, 2, 0, true}});
  // 1 leaves, so its slot 0 is free for 4; 6 takes 3; 2 and 5 keep theirs.
  const NodeList intermediate = {node(2), node(4), node(6), node(1, kNodeRemoved), node(5)};
  EXPECT_EQ(assignSlots(intermediate, config, 7),
            (std::vector<ConfigNodeEntry>{{2, 1, 3, true}, {4, 0, 8, true}, {6, 3, 8, true},
                                          {5, 2, 0, true}}));
  // A ninth node gets no slot.
  const NodeList nine = nodes({1, 2, 3, 4, 5, 6, 7, 8, 9});
  const auto entries = assignSlots(nine, PaxosConfig{}, 1);
  ASSERT_EQ(entries.size(), 8u);
  EXPECT_EQ(entries[7], (ConfigNodeEntry{8, 7, 2, true}));
  // Eight nodes holding every slot keep them; a new one listed first gets none.
  PaxosConfig full;
  for (int32_t id = 1; id <= 8; ++id) full.nodes.push_back({id, id - 1, 0, true});
  const auto kept = assignSlots(nodes({9, 1, 2, 3, 4, 5, 6, 7, 8}), full, 4);
  EXPECT_EQ(kept, full.nodes);
}

TEST(Membership, DiskPlansKeepIdsOfKnownDisksAndMarkDroppedOnesOld) {
  const DiskList current = {{1, 0, "a"}, {2, 0, "b"}};
  const DiskChangePlan plan = planDisks(current, {{1, 0, "c"}, {2, 0, "a"}});
  EXPECT_EQ(plan.next, (DiskList{{3, 0, "c"}, {1, 0, "a"}}));
  EXPECT_EQ(plan.added, (DiskList{{3, 0, "c"}}));
  EXPECT_EQ(plan.unionList, (DiskList{{1, 0, "a"}, {2, 1, "b"}, {3, 0, "c"}}));
  EXPECT_EQ(plan.finalList, (DiskList{{1, 0, "a"}, {3, 0, "c"}}));
  EXPECT_EQ(plan.cfgDisks, (std::vector<int32_t>{3, 1}));
  EXPECT_FALSE(plan.unchanged);
  EXPECT_TRUE(planDisks(current, {{1, 0, "b"}, {2, 0, "a"}}).unchanged);
  EXPECT_EQ(planDisks({}, {{1, 0, "x"}, {2, 0, "y"}}).cfgDisks, (std::vector<int32_t>{1, 2}));
}

TEST(Membership, NodeListing) {
  NodeList list = nodes({1, 2});
  list.push_back({9, 0, "v6host", "fe80::1", 1200});
  const PaxosConfig config = slots({{1, 0, 0, true}, {2, 1, 3, false}});
  EXPECT_EQ(nodeListing(list, config, false),
            " node  slot version active listen  address                name\n"
            "----- ----- ------- ------ ------  ---------------------  -----------------------\n"
            "    1     0       0   true   true  10.0.0.1:1191          n1\n"
            "    2     1       3   true  false  10.0.0.2:1191          n2\n"
            "    9    -1       0  false  false  [fe80::1]:1200         v6host\n");
  EXPECT_EQ(nodeListing(list, config, true),
            "nodeId:nodeName:diskSlot:version:active:listen:ip:port\n"
            "1:n1:0:0:true:true:10.0.0.1:1191\n2:n2:1:3:true:false:10.0.0.2:1191\n"
            "9:v6host:-1:0:false:false:[fe80::1]:1200\n");
}

TEST(Membership, DiskListing) {
  const DiskList disks = {{4, 0, "rel/d4"}, {1, 0, "tb1"}, {2, 1, "tb2:nvme"}, {3, 0, "/s/d3"}};
  EXPECT_EQ(diskListing(disks, slots({}, {1, 3}, 2), false),
            "disk status type        label                           \n"
            "----- ------ ----------- --------------------------------\n"
            "    1 active generic     tb1\n\nminQuorumNodes: 2\n"
            "    2 old    nvme        tb2\n\nminQuorumNodes: 2\n"
            "    3 active file        /s/d3\n\nminQuorumNodes: 2\n"
            "    4 stdby  unknown     rel/d4\n\nminQuorumNodes: 2\n");
  EXPECT_EQ(diskListing(disks, slots({}, {1}, -1), true),
            "diskId:diskLabel:diskType:status:minQuorumNodes\n"
            "1:tb1:generic:active:-1\n2:tb2:nvme:old:-1\n3:/s/d3:file:stdby:-1\n"
            "4:rel/d4:unknown:stdby:-1\n");
}

}  // namespace
}  // namespace qcr
