// Assertions that hold in every build (unlike <cassert>) and stop the process.
//
// QCR_ASSERT(cond) prints "<file>:<line>: assertion '<cond>' failed"; the message
// form QCR_ASSERT_MSG(cond, fmt, ...) adds one formatted line. Both go through
// qcrLog at level 0 and then abort. QCR_CHECK(cond) is the form used by the shared
// classes: "Assertion failed: <cond>\nFile <file> Line <line>".
#pragma once

namespace qcr {

[[noreturn]] void assertFailed(const char* file, int line, const char* expr);
[[noreturn]] void assertFailedMsg(const char* file, int line, const char* expr, const char* fmt,
                                  ...) __attribute__((format(printf, 4, 5)));
[[noreturn]] void checkFailed(const char* file, int line, const char* expr);

}  // namespace qcr

#define QCR_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : ::qcr::assertFailed(__FILE__, __LINE__, #cond))
#define QCR_ASSERT_MSG(cond, ...) \
  ((cond) ? static_cast<void>(0) : ::qcr::assertFailedMsg(__FILE__, __LINE__, #cond, __VA_ARGS__))
#define QCR_CHECK(cond) \
  ((cond) ? static_cast<void>(0) : ::qcr::checkFailed(__FILE__, __LINE__, #cond))
