// End-to-end tests of qcrd clusters with tiebreaker disks: two servers that
// survive the loss of either one, and changes that fail cleanly while the disks
// are gone.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/client/client.h"
#include "qcr/coding/result.h"
#include "testing/cluster_fixture.h"

namespace qcr::test {
namespace {

int fput(Client& client, const ScopedTempDir& tmp, const std::string& name,
         const std::string& content) {
  if (writeFile(tmp.file("put"), content, 0644, false) != 0) return -1;
  RequestResult r;
  return client.FPUT(name, tmp.file("put"), -1, -1, 0, &r);
}

class DiskCluster : public testing::TestWithParam<int> {};

// Two servers, minQuorumNodes 1: whichever server is lost, the other goes on
// committing values and files through the disks (taking the lead when it was the
// follower); the lost one, restarted, catches up on both and can carry the
// repository alone once the other is gone in turn.
TEST_P(DiskCluster, TwoNodesSurviveTheLossOfEither) {
  const ScopedTempDir tmp;
  LocalCluster c(2);
  c.useDisks(GetParam(), 1);
  c.start();
  ASSERT_EQ(vput(*c.client(), "a", "1"), 0);
  const int first = c.leaderIndex();
  const int second = 1 - first;
  c.kill(first);
  const std::unique_ptr<Client> survivor = c.clientOf(second, 30);
  ASSERT_EQ(vput(*survivor, "a", "2"), 0);
  ASSERT_EQ(vput(*survivor, "b", "only while alone"), 0);
  ASSERT_EQ(fput(*survivor, tmp, "conf", "file of the survivor\n"), 0);
  EXPECT_EQ(valueAt(*survivor, "a"), "2");

  c.startServer(first);
  const std::unique_ptr<Client> back = c.clientOf(first, 30);
  EXPECT_EQ(valueAt(*back, "b"), "only while alone");
  EXPECT_EQ(fileAt(*back, tmp, "conf"), "file of the survivor\n");
  // The restarted server now carries the repository without the other one.
  c.kill(second);
  ASSERT_EQ(vput(*back, "c", "3"), 0);
  EXPECT_EQ(valueAt(*back, "a"), "2");
  EXPECT_EQ(valueAt(*back, "c"), "3");
  c.startServer(second);
  EXPECT_EQ(valueAt(*survivor, "c"), "3");
}

INSTANTIATE_TEST_SUITE_P(Disks, DiskCluster, testing::Values(1, 3));

// One server down and the only disk gone (renamed away, then a directory in its
// place): changes fail with 809, and none of them shows up once the disk and the
// server are back, while new changes go through again.
TEST(DiskClusterFaults, WithoutTheDiskChangesFailAndLeaveNothingBehind) {
  LocalCluster c(2);
  c.useDisks(1, 1);
  c.start();
  const std::unique_ptr<Client> cl = c.client(10);
  ASSERT_EQ(vput(*cl, "kept", "yes"), 0);
  const int leader = c.leaderIndex();
  c.kill(1 - leader);
  const std::unique_ptr<Client> alone = c.clientOf(leader, 10);
  ASSERT_EQ(vput(*alone, "kept", "still"), 0);
  const std::string disk = c.diskPath(0);
  ASSERT_EQ(renameFile(disk, disk + ".away"), 0);
  EXPECT_EQ(vput(*alone, "lost", "renamed"), E_NO_QUORUM);
  ASSERT_EQ(makeDirectory(disk, 0700), 0);
  EXPECT_EQ(vput(*alone, "lost", "directory"), E_NO_QUORUM);
  EXPECT_FALSE(fileExists(disk + "/disk1"));
  ASSERT_EQ(removeTree(disk), 0);
  ASSERT_EQ(renameFile(disk + ".away", disk), 0);

  c.startServer(1 - leader);
  const std::unique_ptr<Client> again = c.client(30);
  EXPECT_EQ(valueAt(*again, "kept"), "still");
  EXPECT_EQ(valueAt(*again, "lost"), "");
  ASSERT_EQ(vput(*again, "lost", "later"), 0);
  EXPECT_EQ(valueAt(*c.clientOf(1 - leader, 30), "lost"), "later");
}

}  // namespace
}  // namespace qcr::test
