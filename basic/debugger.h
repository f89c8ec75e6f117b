// Waiting for and breaking into a debugger. The test and the break are
// async-signal-safe, so the crash hook may use them.
#pragma once

#include <cstddef>
#include <string>

namespace qcr {

// True when a debugger traces this process.
bool debuggerAttached();

// Stops the process in an attached debugger (without one, the break signal's
// handling applies).
void breakIntoDebugger();

// Writes the flag file of tag into buf (cut to size, NUL-terminated): "/", the
// last path component of tag (after the last "/" or "\"), ".dbgwait". Returns the
// length written.
size_t debuggerFlagPath(const char* tag, char* buf, size_t size);

// The announcement printed on standard output while a process waits.
std::string debuggerBanner(unsigned long pid, unsigned long tid, const char* tag);

// The debugger wait check for tag: if its flag file exists, announce (when asked)
// and wait while no debugger is attached and the file still exists, testing once a
// second; if the file is still there at the end, wait three seconds more and break
// into the debugger. Removing the file releases the wait. Without announce it is
// async-signal-safe.
void debuggerWaitCheck(const char* tag, bool announce);

// The same check on an explicit flag file, testing every pollMillis.
void debuggerWaitOn(const char* flagPath, const char* tag, bool announce, int pollMillis);

}  // namespace qcr
