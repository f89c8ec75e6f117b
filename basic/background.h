// Long-running processes: a server's stop signals, and servers started in the
// background by the tools and tests that run a local cluster.
#pragma once

#include <string>
#include <vector>

#include "basic/process.h"

namespace qcr {

// Server side. blockStopSignals blocks SIGTERM, SIGINT and SIGHUP in the calling
// thread and every thread it starts later (call it first in main);
// waitServerSignal waits up to timeoutMs for one of them and tells which came:
// kStop for SIGTERM or SIGINT, kReopen for SIGHUP (reopen the log files).
enum class ServerSignal { kNone, kStop, kReopen };
void blockStopSignals();
ServerSignal waitServerSignal(int timeoutMs);

// Names the calling thread (at most 15 bytes are kept), so that ps, top and
// profiles tell a server's threads apart.
void nameThisThread(const char* name);

// What can be done to a background process.
enum class Signal { kTerminate, kKill, kStop, kContinue, kHangUp };

// Starts the program argv[0] with argv and the environment env ("NAME=value";
// empty: this process's environment), in a new session, with standard input from
// /dev/null and standard output and error appended to logPath. 0 and its process
// id, or an errno value.
[[nodiscard]] int startBackground(const std::vector<std::string>& argv,
                                  const std::vector<std::string>& env, const std::string& logPath,
                                  int* pidP);
// Sends signal to process pid. 0 or an errno value (ESRCH: no such process).
[[nodiscard]] int signalProcess(int pid, Signal signal);
// Waits up to timeoutMs for the child pid to end and reaps it. 0 with *statusP
// filled, ETIMEDOUT while it still runs, or an errno value.
[[nodiscard]] int waitBackground(int pid, int timeoutMs, ChildStatus* statusP);
// Whether process pid exists (a zombie counts as gone for children of this process
// only after waitBackground).
bool processAlive(int pid);

}  // namespace qcr
