#include "qcr/comm/retry.h"

#include <gtest/gtest.h>

#include <vector>

#include "qcr/coding/result.h"
#include "testing/fake_clock.h"

namespace qcr {
namespace {

using test::FakeClock;

struct Attempt {
  double at;  // seconds after the start
  int server;
};

// Runs the schedule to its end, every attempt failing with result.
std::vector<Attempt> runSchedule(int result, RetryState* stateP) {
  std::vector<Attempt> attempts;
  for (int last = 0; nextServer(stateP, last) && attempts.size() < 1000; last = result) {
    attempts.push_back({stateP->clock->now() - stateP->startTime, stateP->serverId});
  }
  return attempts;
}

void expectTimes(const std::vector<Attempt>& attempts, const std::vector<double>& times) {
  ASSERT_EQ(attempts.size(), times.size());
  for (size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(attempts[i].at, times[i], 0.01) << i;
}

TEST(Retry, OneServer) {
  FakeClock clock(1000.0);
  RetryState state("vget", {4}, clock);
  const std::vector<Attempt> attempts = runSchedule(111, &state);
  expectTimes(attempts, {0, 1, 3, 7, 15, 31});  // start+63 is past the 45 s budget
  for (const Attempt& a : attempts) EXPECT_EQ(a.server, 4);
  EXPECT_EQ(state.firstError, 0);
}

TEST(Retry, ThreeServers) {
  FakeClock clock(1000.0);
  RetryState state("vput", {3, 1, 2}, clock);
  const std::vector<Attempt> attempts = runSchedule(111, &state);
  // The first pass asks all three at once; pass k (from 1) spreads its three
  // attempts over the 2^(k-1) s after 2^(k-1) - 1 s, and pass 6 has room for one
  // before the 45 s budget ends.
  const std::vector<double> expected = {0,     0,      0,      0.333,  0.667,  1,     1.667,
                                        2.333, 3,      4.333,  5.667,  7,      9.667, 12.333,
                                        15,    20.333, 25.667, 31,     41.667};
  expectTimes(attempts, expected);
  const int order[] = {3, 1, 2};
  for (size_t i = 0; i < attempts.size(); ++i) EXPECT_EQ(attempts[i].server, order[i % 3]);
}

TEST(Retry, NothingAfterTheBudget) {
  FakeClock clock(1000.0);
  RetryState state("vget", {1}, clock);
  ASSERT_TRUE(nextServer(&state, 0));
  clock.advance(45.5);  // the first attempt hung for 45.5 s
  EXPECT_FALSE(nextServer(&state, 143));
}

// 720 and 315 let the current pass finish but stop later ones; 809 is only
// remembered. The first of these codes is the one kept.
TEST(Retry, FatalAndRememberedCodes) {
  const struct {
    std::vector<int> results;  // results of the first attempts; later ones fail with 111
    int attempts;              // attempts made in all
    int firstError;
  } cases[] = {
      {{E_CLUSTER_MISMATCH}, 3, E_CLUSTER_MISMATCH},
      {{111, 111, 111, E_NO_SECURITY}, 4, E_NO_SECURITY},
      {{E_NO_QUORUM, E_NO_SECURITY}, 3, E_NO_QUORUM},
      {{E_NO_QUORUM}, 19, E_NO_QUORUM},
      {{111, E_NO_QUORUM}, 19, E_NO_QUORUM},
      {{}, 19, 0},
  };
  for (const auto& c : cases) {
    FakeClock clock(1000.0);
    RetryState state("fput", {1, 2, 3}, clock);
    int made = 0;
    for (int last = 0; nextServer(&state, last) && made < 1000; ++made) {
      last = made < static_cast<int>(c.results.size()) ? c.results[made] : 111;
    }
    EXPECT_EQ(made, c.attempts);
    EXPECT_EQ(state.firstError, c.firstError);
  }
}

}  // namespace
}  // namespace qcr
