#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "basic/crash.h"
#include "basic/debugger.h"
#include "basic/log.h"
#include "basic/process.h"

namespace qcr {
namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};
constexpr size_t kAltStackSize = 64 * 1024;
constexpr int kDumpWaitMillis = 10000;

// Everything the handler needs is prepared at installation: it must not allocate.
char gTag[64];
char gSignalTag[256];  // "<tag>-SignalHandler"
char gDumpDir[1024];
thread_local uintptr_t tStackMark = 0;  // an address inside this thread's stack
alignas(16) char gAltStack[kAltStackSize];  // the installing thread's
std::atomic<int> gFaults{0};
std::atomic<bool> gDumpDone{false};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The lowest address of the mapping that holds address, read from the process's
// memory map with plain system calls (usable in a signal handler); 0 when none
// does. Each line starts "<start>-<end> "; the rest of it is skipped.
uintptr_t mappingStart(uintptr_t address) {
  const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[1024];
  uintptr_t range[2] = {0, 0};
  int field = 0;  // 0: start, 1: end, 2: the rest of the line
  uintptr_t found = 0;
  for (ssize_t n = 0; found == 0 && (n = read(fd, buf, sizeof buf)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    for (ssize_t i = 0; i < n && found == 0; ++i) {
      if (buf[i] == '\n') {
        if (range[0] <= address && address < range[1]) found = range[0];
        range[0] = range[1] = 0;
        field = 0;
      } else if (field < 2) {
        const int digit = hexDigit(buf[i]);
        if (digit < 0) {
          ++field;  // the '-' after the start, the blank after the end
        } else {
          range[field] = range[field] << 4 | static_cast<uintptr_t>(digit);
        }
      }
    }
  }
  close(fd);
  return found;
}

// A SIGSEGV close below the faulting thread's stack is an overflow into its guard
// area. The stack's extent is looked up only when such a fault comes: the main
// thread's stack grows on demand, so a fault right below its mapping means it
// could grow no further.
bool isStackOverflow(uintptr_t address) {
  constexpr uintptr_t kGuardSpan = 1024 * 1024;
  const uintptr_t low = tStackMark != 0 ? mappingStart(tStackMark) : 0;
  return low != 0 && address + kGuardSpan >= low && address < low + 65536;
}

void writeAll(int fd, const char* text, size_t length) {
  while (length > 0) {
    const ssize_t n = write(fd, text, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    length -= static_cast<size_t>(n);
  }
}

struct FrameList {
  void** frames;
  int capacity;
  int count;
};

_Unwind_Reason_Code addFrame(_Unwind_Context* context, void* arg) {
  auto* list = static_cast<FrameList*>(arg);
  const uintptr_t ip = _Unwind_GetIP(context);
  if (ip == 0 || list->count == list->capacity) return _URC_END_OF_STACK;
  if (list->count >= 0) list->frames[list->count] = reinterpret_cast<void*>(ip);
  ++list->count;
  return _URC_NO_REASON;
}

// The return addresses of the calling thread, innermost first, without this
// function's own. The unwinder is called directly rather than through backtrace(),
// which loads the shared unwinder library on first use even when the program
// carries its own copy.
__attribute__((noinline)) int collectFrames(void** frames, int capacity) {
  FrameList list{frames, capacity, -1};  // -1: the first frame is this function
  _Unwind_Backtrace(addFrame, &list);
  return list.count > 0 ? list.count : 0;
}

void writeCrashDump(const char* line, size_t lineLength, int signo, int siCode,
                    uintptr_t address) {
  char path[1200];
  const int fd = createCrashDump(gDumpDir, gTag, getpid(), path, sizeof path);
  if (fd < 0) return;
  char text[256];
  FixedText details(text, sizeof text);
  details.add("signal ").addDecimal(signo).add(" code ").addDecimal(siCode);
  details.add(" address 0x").addHex(address, 2 * sizeof(void*)).add("\nbacktrace:\n");
  writeAll(fd, line, lineLength);
  writeAll(fd, text, details.length());
  void* frames[64];
  backtrace_symbols_fd(frames, collectFrames(frames, 64), fd);
  fsync(fd);
  close(fd);
}

void waitForDump() {
  for (int waited = 0; !gDumpDone.load() && waited < kDumpWaitMillis; waited += 10) {
    timespec delay{0, 10 * 1000000L};
    nanosleep(&delay, nullptr);
  }
}

void onFatalSignal(int signo, siginfo_t* info, void*) {
  const int savedErrno = errno;
  // Only a fault raised by the hardware carries an address.
  const bool hasAddress = info != nullptr && info->si_code > 0;
  const uintptr_t address =
      hasAddress ? reinterpret_cast<uintptr_t>(info->si_addr) : ~uintptr_t{0};
  const int siCode = info != nullptr ? info->si_code : 0;
  const ExceptionCode exception =
      exceptionForSignal(signo, siCode, signo == SIGSEGV && hasAddress && isStackOverflow(address));
  char line[512];
  const size_t length = formatExceptionLine(line, sizeof line, exception, address, gTag,
                                            currentProcessId(), currentThreadId());
  writeAll(STDERR_FILENO, line, length);
  if (debuggerAttached()) breakIntoDebugger();
  if (exception.code == kExceptionBreakpoint || exception.code == kExceptionSingleStep) {
    _exit(0);  // a breakpoint ends the run as a success
  }
  debuggerWaitCheck(gSignalTag, false);
  if (gFaults.fetch_add(1) == 0) {
    writeCrashDump(line, length, signo, siCode, address);
    gDumpDone.store(true);
  } else {
    waitForDump();  // so the first fault's dump is complete before the process dies
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signo, &action, nullptr);
  raise(signo);  // delivered when the handler returns; a hardware fault also recurs
  errno = savedErrno;
}

void copyText(char* to, size_t size, const char* first, const char* second) {
  FixedText text(to, size);
  text.add(first).add(second);
}

}  // namespace

ExceptionCode exceptionForSignal(int signo, int siCode, bool stackOverflow) {
  switch (signo) {
    case SIGSEGV:
      if (stackOverflow) return {0xC00000FD, "EXCEPTION_STACK_OVERFLOW"};
      return {0xC0000005, "EXCEPTION_ACCESS_VIOLATION"};
    case SIGBUS:
      if (siCode == BUS_ADRALN) return {0x80000002, "EXCEPTION_DATATYPE_MISALIGNMENT"};
      return {0xC0000006, "EXCEPTION_IN_PAGE_ERROR"};
    case SIGILL:
      if (siCode == ILL_PRVOPC || siCode == ILL_PRVREG) {
        return {0xC0000096, "EXCEPTION_PRIV_INSTRUCTION"};
      }
      return {0xC000001D, "EXCEPTION_ILLEGAL_INSTRUCTION"};
    case SIGFPE:
      switch (siCode) {
        case FPE_INTDIV: return {0xC0000094, "EXCEPTION_INT_DIVIDE_BY_ZERO"};
        case FPE_INTOVF: return {0xC0000095, "EXCEPTION_INT_OVERFLOW"};
        case FPE_FLTDIV: return {0xC000008E, "EXCEPTION_FLT_DIVIDE_BY_ZERO"};
        case FPE_FLTOVF: return {0xC0000091, "EXCEPTION_FLT_OVERFLOW"};
        case FPE_FLTUND: return {0xC0000093, "EXCEPTION_FLT_UNDERFLOW"};
        case FPE_FLTRES: return {0xC000008F, "EXCEPTION_FLT_INEXACT_RESULT"};
        case FPE_FLTSUB: return {0xC000008C, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"};
        default: return {0xC0000090, "EXCEPTION_FLT_INVALID_OPERATION"};
      }
    case SIGTRAP:
      if (siCode == TRAP_TRACE) return {kExceptionSingleStep, "EXCEPTION_SINGLE_STEP"};
      return {kExceptionBreakpoint, "EXCEPTION_BREAKPOINT"};
    default: return {static_cast<uint32_t>(signo), "Unknown_Exception_code"};
  }
}

int createCrashDump(const char* dir, const char* tag, int pid, char* path, size_t size) {
  for (int n = 0; n < kCrashDumpNames; ++n) {
    FixedText name(path, size);
    name.add(dir).add("/").add(tag).add(".").addDecimal(pid);
    if (n > 0) name.add(".").addDecimal(n);
    name.add(".crash");
    // Exclusive and without following links: the directory may be shared (/tmp),
    // and whatever another user left under the name must stay untouched.
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

void installCrashHandler(const char* tag) {
  copyText(gTag, sizeof gTag, tag, "");
  copyText(gSignalTag, sizeof gSignalTag, tag, "-SignalHandler");
  const char* dir = getenv("QCR_CRASH_DIR");
  copyText(gDumpDir, sizeof gDumpDir, dir != nullptr && *dir != '\0' ? dir : "/tmp", "");
  tStackMark = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  void* frames[4];
  (void)collectFrames(frames, 4);  // sets the unwinder up now rather than inside a fault
  stack_t altStack{};
  altStack.ss_sp = gAltStack;
  altStack.ss_size = sizeof gAltStack;
  if (sigaltstack(&altStack, nullptr) != 0) qcrLog(1, "sigaltstack failed (err %d)", errno);
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int signo : kFatalSignals) {
    if (sigaction(signo, &action, nullptr) != 0) {
      qcrLog(1, "sigaction(%d) failed (err %d)", signo, errno);
    }
  }
}

namespace {

// A thread's own alternate stack, switched off and freed as the thread ends.
struct ThreadAltStack {
  void* memory = nullptr;
  ~ThreadAltStack() {
    if (memory == nullptr) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    (void)sigaltstack(&off, nullptr);
    free(memory);
  }
};
thread_local ThreadAltStack tAltStack;

}  // namespace

void armCrashHandlerInThread() {
  tStackMark = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (tAltStack.memory != nullptr) return;
  void* memory = malloc(kAltStackSize);
  if (memory == nullptr) return;
  stack_t altStack{};
  altStack.ss_sp = memory;
  altStack.ss_size = kAltStackSize;
  if (sigaltstack(&altStack, nullptr) != 0) {
    qcrLog(1, "sigaltstack failed (err %d)", errno);
    free(memory);
    return;
  }
  tAltStack.memory = memory;
}

}  // namespace qcr
