#include "qcr/server/message_age.h"

namespace qcr {

int64_t MessageAges::age(int32_t sender, int64_t sentMs, int64_t nowMs, int64_t tooOldMs) {
  const int64_t gap = nowMs - sentMs;
  const auto [it, first] = senders_.try_emplace(sender, Sender{gap});
  Sender& s = it->second;
  if (gap <= s.minGap) {
    s.minGap = gap;
    s.late = false;
    return 0;
  }
  const int64_t age = gap - s.minGap;
  if (age <= tooOldMs) {
    s.late = false;
    return age;
  }
  const bool agrees = s.late && gap - s.lateGap <= kPaceMs && s.lateGap - gap <= kPaceMs;
  if (agrees && nowMs - s.lateAt >= kPaceMs) {
    // A live sender whose wall clock went back: its messages are current.
    s.minGap = gap;
    s.late = false;
    return 0;
  }
  if (!agrees) {
    s.late = true;
    s.lateGap = gap;
    s.lateAt = nowMs;
  }
  return age;
}

}  // namespace qcr
