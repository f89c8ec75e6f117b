// Faults on command so that tests can watch the crash hook: prints "pid <pid>"
// on standard output, installs the hook and then does what argv[1] names.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "basic/crash.h"
#include "basic/process.h"

namespace {

volatile int gZero = 0;
volatile int gSeven = 7;
volatile int* volatile gNull = nullptr;
std::atomic<bool> gGo{false};
volatile bool gForever = true;  // hides the endless recursion from the compiler

// The faults must reach the hardware, not the sanitizers' own checks.
__attribute__((no_sanitize("undefined"))) void segv() { *gNull = 1; }
__attribute__((no_sanitize("undefined"))) int divideByZero() { return gSeven / gZero; }

__attribute__((noinline)) int recurse(int depth) {
  volatile char frame[1024];
  frame[0] = static_cast<char>(depth);
  return gForever ? recurse(depth + 1) + frame[0] : 0;
}

// Two threads fault at the same moment.
void faultTogether() {
  auto worker = [] {
    while (!gGo) {
    }
    segv();
  };
  std::thread a(worker);
  std::thread b(worker);
  gGo = true;
  a.join();
  b.join();
}

// A thread other than the installing one runs out of stack.
int overflowInThread() {
  int result = 0;
  std::thread t([&result] {
    qcr::armCrashHandlerInThread();
    result = recurse(0);
  });
  t.join();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  printf("pid %d\n", qcr::currentProcessId());
  fflush(stdout);
  qcr::installCrashHandler("vyqcr");
  const char* mode = argc > 1 ? argv[1] : "";
  if (strcmp(mode, "segv") == 0) segv();
  if (strcmp(mode, "abort") == 0) abort();
  if (strcmp(mode, "fpe") == 0) return divideByZero();
  if (strcmp(mode, "trap") == 0) raise(SIGTRAP);
  if (strcmp(mode, "overflow") == 0) return recurse(0);
  if (strcmp(mode, "thread-overflow") == 0) return overflowInThread();
  if (strcmp(mode, "threads") == 0) faultTogether();
  return 3;  // no fault
}
