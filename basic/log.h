// Diagnostic messages: the console (standard error) and the trace file.
//
// qcrLog(level, fmt, ...) prints the message to standard error when level is at
// most the console verbosity, and writes it as a trace record when level is at
// most the trace level of the "vyqcr" trace class, the trace file is open and that
// trace level is at least 2. Messages are cut at 1024 bytes.
//
// Levels: 0 always shown, 1 errors, 3 corrupt data, 4 progress and connection
// events, 5 message traffic, 6 and 7 detail and waits.
#pragma once

#include <atomic>
#include <string>

namespace qcr {

inline constexpr int kLogMessageMax = 1024;
inline constexpr int kDefaultTraceLevel = 4;

// Console verbosity: each -V adds one; QCR_DEBUG replaces it. Both levels may
// change while other threads log (a server's trace and msglevel requests).
extern std::atomic<int> verbosity;
// Trace level of the "vyqcr" trace class; QCR_TRACE replaces it.
extern std::atomic<int> traceLevel;

void qcrLog(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Whether qcrLog(level, ...) would show a message now, on the console or in an
// open trace file: a caller tests it before building an argument (a whole state
// as text, say) that would otherwise be formatted for nobody.
bool qcrLogShown(int level);

// Opens the trace file (appending; created when missing) and tags every record
// with component. An empty path closes it: trace records are then dropped.
// A symbolic link at path is not followed (ELOOP) and anything but a regular file
// is refused (EINVAL), so a planted link cannot make the trace grow another file.
// Returns 0 or an errno value.
[[nodiscard]] int traceOpen(const std::string& component, const std::string& path);
void traceClose();
// Closes the trace file and opens the path last given to traceOpen again, so
// that a file moved away by log rotation is followed by a new one. 0 (also when
// no trace was open) or an errno value.
[[nodiscard]] int traceReopen();
bool traceIsOn();

// Where the tool writes its trace: QCR_TRACE_FILE when set, otherwise nowhere.
std::string defaultTraceFile();

// Appends line and "\n" to the command log named by QCR_CMD_LOG (created when
// missing; opened as the trace file is). Nothing happens when the variable is
// unset or the file cannot be opened: the log never stops a command.
void appendCommandLog(const std::string& line);

// Reads QCR_DEBUG and QCR_TRACE (decimal integers) into verbosity and traceLevel.
void readLogEnvironment();

}  // namespace qcr
