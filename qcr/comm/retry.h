// The retry schedule of a request: which server to try next, and when.
//
// Pass 0 tries every server once, at once. Pass p >= 1 spreads its n attempts
// evenly over [start + 2^(p-1) - 1, start + 2^p - 1] seconds, so with one server
// the attempts fall at 0, 1, 3, 7, 15 and 31 s. Nothing starts later than the
// budget (45 s unless the caller sets another) after the first attempt. A 720 (no
// security) or 315 (cluster mismatch) result lets the current pass finish but
// forbids further passes; an 809 (no quorum) is only remembered. The first of
// these three codes is kept as the error to report.
#pragma once

#include <string>
#include <vector>

#include "basic/clock.h"

namespace qcr {

inline constexpr double kRetryBudgetSeconds = 45.0;

// One request loop's state; not shared between threads.
struct RetryState {
  RetryState(std::string operation, std::vector<int> serverIds, Clock& clock = systemClock());

  std::string name;          // operation name for messages ("vget", "discover")
  std::vector<int> servers;  // server ids in the order they are tried
  Clock* clock;
  bool active = true;      // cleared by a final answer: no more attempts
  bool fatal = false;      // a result forbids further passes
  int firstError = 0;      // the error to report when every attempt fails
  int attempt = 0;         // attempts started
  int serverId = -1;       // server of the current attempt
  bool connected = false;  // the current attempt got a connection (set by the caller)
  double startTime;        // clock->now() at creation
  double budgetSeconds = kRetryBudgetSeconds;  // no attempt starts later than this
  int connectCount = 0;    // attempts that got a connection (counted by the caller)
};

// Records lastResult (0 before the first attempt) and decides about the next
// attempt: true with stateP->serverId set, after sleeping on the state's clock
// until the attempt is due; false when the caller must give up.
[[nodiscard]] bool nextServer(RetryState* stateP, int lastResult);

}  // namespace qcr
