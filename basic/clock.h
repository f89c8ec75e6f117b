// Time for schedules and reports. Code that waits or measures takes a Clock, so
// that tests can put a fake in its place and run a 45-second schedule at once.
#pragma once

namespace qcr {

class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds (fractional) on a scale that never steps; for schedules and intervals.
  virtual double now() = 0;
  // Seconds since the epoch on the wall clock, which an administrator may step.
  virtual double wallNow() = 0;
  // Returns once now() has reached t; at once when it already has.
  virtual void sleepUntil(double t) = 0;
};

// The machine's clock; lives for the whole run and may be used from any thread.
Clock& systemClock();

}  // namespace qcr
