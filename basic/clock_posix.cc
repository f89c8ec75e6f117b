#include "basic/clock.h"

#include <time.h>

#include <cerrno>
#include <cmath>

namespace qcr {

namespace {

double readClock(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

class SystemClock final : public Clock {
 public:
  double now() override { return readClock(CLOCK_MONOTONIC); }
  double wallNow() override { return readClock(CLOCK_REALTIME); }

  void sleepUntil(double t) override {
    if (!(t > 0)) return;
    double whole = 0;
    const double fraction = std::modf(t, &whole);
    timespec until{static_cast<time_t>(whole), static_cast<long>(fraction * 1e9)};
    // An absolute deadline: an interrupted sleep resumes without drifting.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
  }
};

}  // namespace

Clock& systemClock() {
  static SystemClock clock;
  return clock;
}

}  // namespace qcr
