#include "qcr/server/synod_times.h"

#include <cstdio>

namespace qcr {

namespace {

constexpr const char* kNames[] = {"decode", "queue",  "lead",  "build", "send", "leader write",
                                  "quorum", "apply", "reply", "follower accept"};
static_assert(sizeof kNames / sizeof kNames[0] == static_cast<size_t>(SynodPart::Count));

}  // namespace

void SynodTimes::add(SynodPart part, double seconds) {
  const auto i = static_cast<size_t>(part);
  ns_[i].fetch_add(static_cast<int64_t>(seconds * 1e9), std::memory_order_relaxed);
  counts_[i].fetch_add(1, std::memory_order_relaxed);
}

std::string SynodTimes::report() const {
  std::string out = "synod times (us, mean, count):";
  for (size_t i = 0; i < kParts; ++i) {
    const int64_t n = counts_[i].load(std::memory_order_relaxed);
    if (n == 0) continue;
    char part[96];
    snprintf(part, sizeof part, " %s %.1f (%lld)", kNames[i],
             static_cast<double>(ns_[i].load(std::memory_order_relaxed)) / 1e3 / static_cast<double>(n),
             static_cast<long long>(n));
    out += part;
  }
  return out;
}

}  // namespace qcr
