// The program's entry: personality choice, start-up steps and exit statuses.
#pragma once

#include <string_view>

#include "qcr/cmd/usage.h"

namespace qcr {

// Runs one invocation and returns the process exit status. The personality comes
// from argv[0]: a name that ends in "qcrsh" (its first "qcrsh" starting exactly
// five characters before the end) is the remote shell, one that ends in "qcrcp"
// the remote copy, anything else (even "qcrsh.exe") the main tool.
[[nodiscard]] int DriverMain(int argc, const char* const* argv);

Personality personalityOf(std::string_view programName);

// Exit status of the main tool for a handler's result code: 0 for 0, a fixed
// status for the few codes scripts test (802 -> 150 ... 822 -> 159), 149 for all
// others.
int exitStatusFor(int result);

// Exit status of qcrsh and qcrcp: the result itself when it fits (0-255), else 1.
int remoteExitStatus(int result);

// The personalities after the common start-up; each returns the exit status.
[[nodiscard]] int ShellMain(int argc, const char* const* argv);
[[nodiscard]] int CopyMain(int argc, const char* const* argv);

}  // namespace qcr
