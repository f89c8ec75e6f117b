// How old a peer's message is, judged without comparing this server's wall clock
// with the sender's.
//
// A message carries the sender's wall clock time. The gap between this server's
// monotonic clock on arrival and that time is the offset between the two clocks
// plus the message's delay; the smallest gap seen from a sender stands for the
// offset alone, so a message's age is how far its gap lies above that smallest
// one. Two machines whose wall clocks are seconds apart therefore see their
// messages as fresh, while a message that waited (in a socket while this server
// was stopped, say) shows its wait.
//
// A sender whose wall clock is stepped back makes every later gap larger at once.
// That is told apart from messages that waited by their pace: two too-old
// messages from one sender whose gaps agree and that arrive at least kPaceMs
// apart on this server's clock, as a live sender's do, make their gap the new
// smallest one; a backlog delivered after a stop arrives all at once.
//
// Not thread-safe: the owner (the replica) calls it under its lock.
#pragma once

#include <cstdint>
#include <map>

namespace qcr {

class MessageAges final {
 public:
  // Gaps that agree within this, arriving at least this far apart, re-base.
  static constexpr int64_t kPaceMs = 100;

  // The age in ms of a message from sender sent at sentMs (the sender's wall
  // clock) and arriving at nowMs (this server's monotonic clock, in ms); never
  // negative. tooOldMs is the age beyond which the message will be refused.
  int64_t age(int32_t sender, int64_t sentMs, int64_t nowMs, int64_t tooOldMs);

 private:
  struct Sender {
    int64_t minGap = 0;
    bool late = false;     // the last message was too old
    int64_t lateGap = 0;   // its gap
    int64_t lateAt = 0;    // and when it arrived
  };
  std::map<int32_t, Sender> senders_;
};

}  // namespace qcr
