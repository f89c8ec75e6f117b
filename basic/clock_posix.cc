#include "basic/clock.h"

#include <time.h>

#include <cerrno>

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
    // Truncation instead of modf: t is positive, and the program needs no libm.
    const auto whole = static_cast<time_t>(t);
    const double fraction = t - static_cast<double>(whole);
    timespec until{whole, static_cast<long>(fraction * 1e9)};
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
