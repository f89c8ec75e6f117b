#include "basic/assert.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "basic/log.h"

namespace qcr {

void assertFailed(const char* file, int line, const char* expr) {
  qcrLog(0, "%s:%d: assertion '%s' failed\n", file, line, expr);
  abort();
}

void assertFailedMsg(const char* file, int line, const char* expr, const char* fmt, ...) {
  char message[kLogMessageMax];
  va_list args;
  va_start(args, fmt);
  vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  qcrLog(0, "%s:%d: assertion '%s' failed\n%s\n", file, line, expr, message);
  abort();
}

void checkFailed(const char* file, int line, const char* expr) {
  fprintf(stderr, "Assertion failed: %s\nFile %s Line %d\n", expr, file, line);
  fflush(stderr);
  abort();
}

}  // namespace qcr
