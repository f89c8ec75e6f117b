// A clock for tests: time moves only when someone sleeps on it or the test
// advances it, so a 45-second schedule or a lease runs at once. Every wake-up is
// kept for the test to check. Safe to use from several threads.
#pragma once

#include <algorithm>
#include <mutex>
#include <vector>

#include "basic/clock.h"

namespace qcr::test {

class FakeClock final : public Clock {
 public:
  explicit FakeClock(double start = 0, double wallOffset = 0)
      : now_(start), wallOffset_(wallOffset) {}

  double now() override {
    std::lock_guard<std::mutex> lock(mu_);
    return now_;
  }
  double wallNow() override {
    std::lock_guard<std::mutex> lock(mu_);
    return now_ + wallOffset_;
  }
  void sleepUntil(double t) override {
    std::lock_guard<std::mutex> lock(mu_);
    now_ = std::max(now_, t);
    wakeUps_.push_back(now_);
  }

  // Moves time forward by seconds.
  void advance(double seconds) {
    std::lock_guard<std::mutex> lock(mu_);
    now_ += seconds;
  }
  // Steps the wall clock alone, as an administrator may.
  void stepWall(double seconds) {
    std::lock_guard<std::mutex> lock(mu_);
    wallOffset_ += seconds;
  }
  std::vector<double> wakeUps() {
    std::lock_guard<std::mutex> lock(mu_);
    return wakeUps_;
  }

 private:
  std::mutex mu_;
  double now_;
  double wallOffset_;
  std::vector<double> wakeUps_;
};

}  // namespace qcr::test
