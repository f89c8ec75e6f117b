// When a reply rewrites the cached state file: only for news, not for a reply that
// confirms what the file already holds.
#include "qcr/client/client_cache.h"

#include <gtest/gtest.h>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/comm/connection.h"
#include "qcr/data/session.h"
#include "qcr/data/state_file.h"

namespace qcr {
namespace {

CommittedState stateWithLeader(int leader) {
  CommittedState state;
  state.leaderId = leader;
  state.config.nodes = {{1, 0, 0, true}, {2, 1, 0, true}};
  return state;
}

class ClientCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(makeTempDir("qcr-cache-", &dir_), 0);
    session() = Session{};
    session().paths = deriveRepoPaths(dir_);
    ASSERT_EQ(makeDirectory(session().paths.cachedDir, 0755), 0);
  }
  void TearDown() override {
    setExpectedClusterId(0);
    EXPECT_EQ(removeTree(dir_), 0);
  }

  // A new run: the cache and the session start empty, then load the cached file.
  void startRun() {
    clientCache() = ClientCache{};
    const RepoPaths paths = session().paths;
    session() = Session{};
    session().paths = paths;
    ASSERT_EQ(PaxosInit(false), 0);
  }

  int32_t cachedFileSeq() {
    PaxosLocalFile file;
    EXPECT_EQ(file.loadFromFile(session().paths.cachedPaxosFile), 0);
    return file.data.dblk.seq;
  }

  std::string dir_;
};

TEST_F(ClientCacheTest, ANewerReplyRewritesTheCachedFileOnlyWhenItBringsNews) {
  const struct {
    int leader;
    uint64_t clusterId;  // the replying connection's
    bool stored;
  } cases[] = {
      {2, 99, false},  // the cluster the cached file names, the same leader
      {2, 0, false},   // a connection that reports no cluster id
      {3, 99, true},   // a new leader
      {2, 77, true},   // another cluster
  };
  for (const auto& c : cases) {
    session().clusterId = 99;
    ASSERT_EQ(storeCachedState(5, stateWithLeader(2)), 0);
    startRun();
    EXPECT_EQ(session().clusterId, 99u);
    updateClientCache(6, stateWithLeader(c.leader), c.clusterId);
    EXPECT_EQ(cachedFileSeq(), c.stored ? 6 : 5) << c.leader << " " << c.clusterId;
    EXPECT_EQ(clientCache().cachedLeader, c.leader);
    // The first reported id is what later connections of the run must reach.
    EXPECT_EQ(expectedClusterId(), c.clusterId);
    setExpectedClusterId(0);
  }
}

}  // namespace
}  // namespace qcr
