#include "basic/debugger.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "basic/process.h"

namespace qcr {
namespace {

void sleepMillis(int millis) {
  timespec delay{millis / 1000, (millis % 1000) * 1000000L};
  while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
  }
}

bool fileExists(const char* path) { return access(path, F_OK) == 0; }

}  // namespace

bool debuggerAttached() {
  // "TracerPid:\t<pid>" in the process status is non-zero while traced.
  const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[4096];
  const ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  if (n <= 0) return false;
  text[n] = '\0';
  const char* field = strstr(text, "TracerPid:");
  if (field == nullptr) return false;
  field += strlen("TracerPid:");
  while (*field == ' ' || *field == '\t') ++field;
  return *field >= '1' && *field <= '9';
}

void breakIntoDebugger() { raise(SIGTRAP); }

size_t debuggerFlagPath(const char* tag, char* buf, size_t size) {
  const char* name = tag;
  for (const char* p = tag; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') name = p + 1;
  }
  size_t n = 0;
  for (const char* part : {"/", name, ".dbgwait"}) {
    for (; *part != '\0' && n + 1 < size; ++part) buf[n++] = *part;
  }
  if (size > 0) buf[n] = '\0';
  return n;
}

std::string debuggerBanner(unsigned long pid, unsigned long tid, const char* tag) {
  char text[512];
  snprintf(text, sizeof text,
           "\n#########################################################################\n"
           "# Waiting for debugger to attach: PID=%lu TID=%lu flag=%s\n"
           "#########################################################################\n\n",
           pid, tid, tag);
  return text;
}

void debuggerWaitCheck(const char* tag, bool announce) {
  char flag[256];
  debuggerFlagPath(tag, flag, sizeof flag);
  debuggerWaitOn(flag, tag, announce, 1000);
}

void debuggerWaitOn(const char* flagPath, const char* tag, bool announce, int pollMillis) {
  if (!fileExists(flagPath)) return;
  if (announce) {
    const std::string banner = debuggerBanner(static_cast<unsigned long>(currentProcessId()),
                                              static_cast<unsigned long>(currentThreadId()), tag);
    fputs(banner.c_str(), stdout);
    fflush(stdout);
  }
  while (!debuggerAttached() && fileExists(flagPath)) sleepMillis(pollMillis);
  if (!fileExists(flagPath)) return;
  sleepMillis(3 * pollMillis);
  breakIntoDebugger();
}

}  // namespace qcr
