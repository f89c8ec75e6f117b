// The running process: ids, and child processes run through a shell.
#pragma once

#include <string>

namespace qcr {

// Kernel thread id of the calling thread (what temporary names and traces show).
int currentThreadId();
int currentProcessId();

}  // namespace qcr
