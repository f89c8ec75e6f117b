// The fatal-signal hook: on a crash the process prints one line, the first fault
// leaves a crash dump, and the process then dies by the same signal.
//
// installCrashHandler(tag) catches SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT,
// SIGTRAP and SIGSYS on an alternate stack (so a stack overflow of the calling
// thread is caught too). For each fault, in any thread, the hook:
//  1. writes "[E] Exception 0x<code> (<name>) at Address 0x<address>, [<tag>]
//     pid:tid <pid>:<tid>." to standard error, where code and name are the
//     standard exception code that matches the signal (exceptionForSignal) and
//     the address is the faulting one, all ones when the signal carries none;
//  2. breaks into an attached debugger;
//  3. for a breakpoint or single-step code ends the process with status 0;
//  4. otherwise runs the debugger wait check for "<tag>-SignalHandler", and the
//     first fault of the process writes the crash dump "<dir>/<tag>.<pid>.crash"
//     (the line, the signal, its code and address, and a backtrace), where dir is
//     $QCR_CRASH_DIR when set at installation, else /tmp; the file is created new
//     (createCrashDump); later faults wait (at most ten seconds) for that dump to
//     be complete;
//  5. restores the default action and re-raises, so the process ends by the signal.
// Call once, from the main thread, before other threads start. Every other thread
// calls armCrashHandlerInThread first, so that its stack overflow is caught too.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qcr {

void installCrashHandler(const char* tag);
// Gives the calling thread an alternate stack of its own for the hook, released
// when the thread ends. A thread without one dies of a stack overflow without the
// hook's line; its other faults are caught all the same.
void armCrashHandlerInThread();

// How many names createCrashDump tries.
inline constexpr int kCrashDumpNames = 100;

// Creates a new crash dump file for writing: "<dir>/<tag>.<pid>.crash", or, when
// something (a file, a link) is there already, "<dir>/<tag>.<pid>.<n>.crash" for
// the first free n below kCrashDumpNames. Never opens an existing file and never
// follows a symbolic link. The name used goes into path (size bytes, cut and
// NUL-terminated like FixedText). Returns the open descriptor, which the caller
// closes, or -1. Allocation-free (usable in a signal handler).
int createCrashDump(const char* dir, const char* tag, int pid, char* path, size_t size);

struct ExceptionCode {
  uint32_t code;
  const char* name;
};

// The standard exception code for a signal and its si_code; stackOverflow marks a
// SIGSEGV that hit the stack's guard area. Signals without a matching code
// (SIGABRT, SIGSYS) give the signal number and "Unknown_Exception_code".
ExceptionCode exceptionForSignal(int signo, int siCode, bool stackOverflow);

inline constexpr uint32_t kExceptionBreakpoint = 0x80000003;
inline constexpr uint32_t kExceptionSingleStep = 0x80000004;

// Formats the crash line of step 1 into buf without allocating (usable in a
// signal handler). The address is written as pointer-wide upper-case hex.
// Returns the length (the text is cut to size - 1 and NUL-terminated).
size_t formatExceptionLine(char* buf, size_t size, ExceptionCode exception, uintptr_t address,
                           const char* tag, int pid, int tid);

// An append-only text in a caller's buffer; allocation-free for signal handlers.
class FixedText final {
 public:
  FixedText(char* buf, size_t size) : buf_(buf), size_(size) { terminate(); }
  FixedText& add(const char* text);
  FixedText& addDecimal(long long value);
  FixedText& addHex(uint64_t value, int minDigits);  // upper case, zero-padded
  size_t length() const { return length_; }

 private:
  void terminate() {
    if (size_ > 0) buf_[length_] = '\0';
  }
  char* buf_;
  size_t size_;
  size_t length_ = 0;
};

}  // namespace qcr
