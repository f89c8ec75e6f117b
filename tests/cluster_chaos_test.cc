// Chaos: one writer keeps changing a value while servers are killed, restarted,
// stopped and resumed at random, never more than a minority at a time. At the end
// every server must hold the same state, and no acknowledged change may be lost.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "qcr/comm/result.h"
#include "tests/cluster_fixture.h"

namespace qcr::test {
namespace {

enum class Health { kUp, kKilled, kPaused };

TEST(ClusterChaos, MinorityFailuresLoseNoAcknowledgedChange) {
  constexpr int kNodes = 5;
  LocalCluster c(kNodes);
  c.start();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);

  std::atomic<bool> stop{false};
  std::atomic<int> lastAcked{0};
  std::set<int> refusals;
  std::thread writer([&] {
    RepoClient cl = c.client(15);
    for (int i = 1; !stop; ++i) {
      const int rc = cl.vput("counter", std::to_string(i));
      if (rc == 0) {
        lastAcked = i;
      } else {
        refusals.insert(rc);
      }
    }
  });

  std::vector<Health> health(kNodes, Health::kUp);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(12);
  while (std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300 + random() % 500));
    const int i = static_cast<int>(random() % kNodes);
    const int down = static_cast<int>(std::count_if(health.begin(), health.end(),
                                                    [](Health h) { return h != Health::kUp; }));
    if (health[i] == Health::kKilled) {
      c.startServer(i);
      health[i] = Health::kUp;
    } else if (health[i] == Health::kPaused) {
      c.resume(i);
      health[i] = Health::kUp;
    } else if (down < kNodes / 2) {
      const bool kill = random() % 2 == 0;
      if (kill) {
        c.kill(i);
      } else {
        c.pause(i);
      }
      health[i] = kill ? Health::kKilled : Health::kPaused;
    }
  }
  stop = true;
  writer.join();
  for (int i = 0; i < kNodes; ++i) {
    if (health[i] == Health::kKilled) c.startServer(i);
    if (health[i] == Health::kPaused) c.resume(i);
  }

  // A final change through every server's view, then all must agree.
  RepoClient cl = c.client(20);
  ASSERT_EQ(cl.vput("final", "1"), 0);
  SeqCommitReply first;
  for (int i = 0; i < kNodes; ++i) {
    RepoClient one = c.clientOf(i, 20);
    SeqCommitReply r;
    ASSERT_EQ(one.vget(&r), 0) << "server " << i;
    if (i == 0) first = r;
    EXPECT_EQ(r.state.values, first.state.values) << "server " << i;
  }
  ASSERT_GT(lastAcked, 0);
  ASSERT_EQ(first.state.values.count("counter"), 1u);
  EXPECT_GE(std::stoi(first.state.values["counter"].text), lastAcked.load());
  EXPECT_GE(first.state.values["counter"].version, lastAcked.load());
  // Refusals may only be the answers of a cluster that is changing its leader.
  for (int rc : refusals) {
    EXPECT_TRUE(rc == E_NO_QUORUM || rc == E_NO_LEADER_CONTACT || rc == E_MAX_RETRIES ||
                rc == E_NOT_ACTIVE)
        << rc;
  }
  printf("chaos: %d changes acknowledged, final counter %s\n", lastAcked.load(),
         first.state.values["counter"].text.c_str());
}

}  // namespace
}  // namespace qcr::test
