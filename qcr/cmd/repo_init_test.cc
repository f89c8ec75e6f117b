#include "qcr/cmd/repo_init.h"

#include <gtest/gtest.h>

namespace qcr {
namespace {

TEST(RepoInit, PartialSuccessNeedsAMajorityOrTheDisksAndTheMinimum) {
  struct Case {
    int nodes, disks, minNodes, success, expected;
  };
  const Case cases[] = {
      {5, 0, 1, 3, 0},   {5, 0, 1, 2, 7},  // a strict majority of five
      {4, 0, 1, 2, 7},   {4, 0, 1, 3, 0},  // half is not a majority
      {4, 1, 2, 2, 0},   {4, 3, 3, 2, 7},  // with disks: the minimum decides
      {2, 1, 1, 1, 0},   {1, 0, 1, 0, 7},  {3, 0, 1, 3, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(checkForQuorumAndReset(c.nodes, c.disks, c.minNodes, c.success, 7), c.expected)
        << c.nodes << " nodes, " << c.disks << " disks, min " << c.minNodes << ", " << c.success
        << " succeeded";
  }
}

TEST(RepoInit, ARestoredStateKeepsValuesAndFilesButNotTheOldLists) {
  RepositoryPlan plan;
  plan.clusterId = 9;
  plan.nodes = {{1, 0, "a", "127.0.0.1", 1191}, {2, 0, "b", "127.0.0.1", 1192}};
  plan.fromArchive = true;
  plan.restored.values["v"] = {7, "x"};
  plan.restored.maxDeletedFileVersion = 4;
  plan.restored.files[1] = {3, {1, 1, 1}, 0x11};   // the old node list
  plan.restored.files[16] = {5, {1, 1, 2}, 0x22};  // a user's file
  plan.restored.leaderId = 2;
  const PaxosDblockSummary d = initialRepositoryState(plan);
  EXPECT_EQ(d.committed.values, plan.restored.values);
  EXPECT_EQ(d.committed.files.size(), 1u);
  EXPECT_EQ(d.committed.files.at(16), plan.restored.files.at(16));
  EXPECT_EQ(d.committed.maxDeletedFileVersion, 4);
  EXPECT_EQ(d.committed.leaderId, -1);  // the new repository starts without a leader
  EXPECT_EQ(d.committed.config.nodes.size(), 2u);
  EXPECT_EQ(d.seq, 0);
}

}  // namespace
}  // namespace qcr
