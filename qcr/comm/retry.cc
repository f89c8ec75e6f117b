#include "qcr/comm/retry.h"

#include <algorithm>

#include "basic/log.h"
#include "qcr/coding/result.h"

namespace qcr {

RetryState::RetryState(std::string operation, std::vector<int> serverIds, Clock& clockRef)
    : name(std::move(operation)),
      servers(std::move(serverIds)),
      clock(&clockRef),
      startTime(clockRef.now()) {}

bool nextServer(RetryState* stateP, int lastResult) {
  RetryState& s = *stateP;
  if (!s.active || s.servers.empty()) return false;
  if (lastResult == E_NO_SECURITY || lastResult == E_CLUSTER_MISMATCH) {
    s.fatal = true;
    if (s.firstError == 0) s.firstError = lastResult;
  } else if (lastResult == E_NO_QUORUM && s.firstError == 0) {
    s.firstError = lastResult;
  }
  const int n = static_cast<int>(s.servers.size());
  const int pass = s.attempt / n;
  if (pass > 0) {
    if (s.fatal) return false;
    const double base = static_cast<double>(1LL << std::min(pass - 1, 62));
    const double target = s.startTime + base - 1.0 + (base / n) * (s.attempt % n + 1);
    const double now = s.clock->now();
    const double end = s.startTime + s.budgetSeconds;
    if (now > end || target > end) return false;
    qcrLog(3, "%s %s to server %d failed with err %d: retrying (delay %.1f sec)", s.name.c_str(),
           s.connected ? "operation" : "connect", s.serverId, lastResult, target - now);
    s.clock->sleepUntil(target);
  }
  s.serverId = s.servers[s.attempt % n];
  ++s.attempt;
  return true;
}

}  // namespace qcr
