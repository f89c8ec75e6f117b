#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "basic/crash.h"
#include "basic/debugger.h"
#include "basic/tempdir.h"

namespace qcr {
namespace {

TEST(Crash, MapsSignalsToExceptionCodes) {
  struct Case {
    int signo;
    int siCode;
    bool overflow;
    uint32_t code;
    const char* name;
  } cases[] = {
      {SIGSEGV, SEGV_MAPERR, false, 0xC0000005, "EXCEPTION_ACCESS_VIOLATION"},
      {SIGSEGV, SEGV_MAPERR, true, 0xC00000FD, "EXCEPTION_STACK_OVERFLOW"},
      {SIGBUS, BUS_ADRALN, false, 0x80000002, "EXCEPTION_DATATYPE_MISALIGNMENT"},
      {SIGBUS, BUS_ADRERR, false, 0xC0000006, "EXCEPTION_IN_PAGE_ERROR"},
      {SIGILL, ILL_ILLOPC, false, 0xC000001D, "EXCEPTION_ILLEGAL_INSTRUCTION"},
      {SIGILL, ILL_PRVOPC, false, 0xC0000096, "EXCEPTION_PRIV_INSTRUCTION"},
      {SIGFPE, FPE_INTDIV, false, 0xC0000094, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
      {SIGFPE, FPE_INTOVF, false, 0xC0000095, "EXCEPTION_INT_OVERFLOW"},
      {SIGFPE, FPE_FLTDIV, false, 0xC000008E, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
      {SIGFPE, FPE_FLTINV, false, 0xC0000090, "EXCEPTION_FLT_INVALID_OPERATION"},
      {SIGTRAP, TRAP_BRKPT, false, 0x80000003, "EXCEPTION_BREAKPOINT"},
      {SIGTRAP, SI_TKILL, false, 0x80000003, "EXCEPTION_BREAKPOINT"},
      {SIGTRAP, TRAP_TRACE, false, 0x80000004, "EXCEPTION_SINGLE_STEP"},
      {SIGABRT, SI_TKILL, false, SIGABRT, "Unknown_Exception_code"},
      {SIGSYS, 1, false, SIGSYS, "Unknown_Exception_code"},
  };
  for (const Case& c : cases) {
    const ExceptionCode e = exceptionForSignal(c.signo, c.siCode, c.overflow);
    EXPECT_EQ(e.code, c.code) << c.signo << "/" << c.siCode;
    EXPECT_STREQ(e.name, c.name) << c.signo << "/" << c.siCode;
  }
}

TEST(Crash, FormatsTheLineWithoutPrintf) {
  char line[256];
  const size_t n = formatExceptionLine(line, sizeof line, {0xC0000005, "EXCEPTION_ACCESS_VIOLATION"},
                                       0x7f00dead10, "vyqcr", 4242, 4243);
  char expected[256];
  snprintf(expected, sizeof expected,
           "[E] Exception 0x%08lX (%s) at Address 0x%016" PRIXPTR ", [%s] pid:tid %d:%d.\n",
           0xC0000005ul, "EXCEPTION_ACCESS_VIOLATION", uintptr_t{0x7f00dead10}, "vyqcr", 4242,
           4243);
  EXPECT_STREQ(line, expected);
  EXPECT_EQ(n, strlen(expected));

  // Cut to the buffer, still terminated.
  char small[20];
  EXPECT_EQ(formatExceptionLine(small, sizeof small, {6, "Unknown_Exception_code"}, 0, "t", 1, 1),
            19u);
  EXPECT_STREQ(small, "[E] Exception 0x000");
}

TEST(Crash, FixedTextNumbers) {
  char buf[64];
  FixedText text(buf, sizeof buf);
  text.addDecimal(0).add(" ").addDecimal(-17).add(" ").addDecimal(LLONG_MIN).add(" ");
  text.addHex(0, 1).add(" ").addHex(0xABCDEF, 2).add(" ").addHex(0x1F, 8);
  EXPECT_STREQ(buf, "0 -17 -9223372036854775808 0 ABCDEF 0000001F");
}

// The dump's name is predictable: whatever is found under it (a link planted by
// another user, an earlier dump) stays untouched and the next free name is used.
TEST(Crash, DumpFilesAreCreatedNewAndNeverThroughLinks) {
  std::string dir;
  ASSERT_EQ(makeTempDir("qcr-dump-", &dir), 0);
  std::ofstream(dir + "/outside") << "precious\n";
  std::filesystem::create_symlink(dir + "/outside", dir + "/t.42.crash");
  std::filesystem::create_symlink(dir + "/nowhere", dir + "/t.42.1.crash");
  char path[256];
  const char* expected[] = {"/t.42.2.crash", "/t.42.3.crash"};
  for (const char* name : expected) {
    const int fd = createCrashDump(dir.c_str(), "t", 42, path, sizeof path);
    ASSERT_GE(fd, 0) << name;
    EXPECT_EQ(write(fd, "dump\n", 5), 5);
    close(fd);
    EXPECT_EQ(std::string(path), dir + name);
  }
  std::ifstream outside(dir + "/outside");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(outside), {}), "precious\n");
  EXPECT_FALSE(std::filesystem::exists(dir + "/nowhere"));
  EXPECT_EQ(createCrashDump((dir + "/missing").c_str(), "t", 42, path, sizeof path), -1);
  EXPECT_EQ(removeTree(dir), 0);
}

TEST(Debugger, FlagFileAndBanner) {
  struct Case {
    const char* tag;
    const char* flag;
  } cases[] = {{"vyqcr", "/vyqcr.dbgwait"},
               {"vyqcr-SignalHandler", "/vyqcr-SignalHandler.dbgwait"},
               {"/usr/bin/vyqcr", "/vyqcr.dbgwait"},
               {"c:\\bin\\qcrd", "/qcrd.dbgwait"}};
  for (const Case& c : cases) {
    char flag[64];
    EXPECT_EQ(debuggerFlagPath(c.tag, flag, sizeof flag), strlen(c.flag));
    EXPECT_STREQ(flag, c.flag);
  }
  EXPECT_EQ(debuggerBanner(12, 34, "vyqcr"),
            "\n#########################################################################\n"
            "# Waiting for debugger to attach: PID=12 TID=34 flag=vyqcr\n"
            "#########################################################################\n\n");
  EXPECT_FALSE(debuggerAttached());
}

TEST(Debugger, WaitEndsWhenTheFlagFileGoes) {
  std::string dir;
  ASSERT_EQ(makeTempDir("qcr-dbg-", &dir), 0);
  const std::string flag = dir + "/t.dbgwait";
  debuggerWaitOn(flag.c_str(), "t", false, 10);  // no file: returns at once
  std::ofstream(flag).put('x');
  const auto start = std::chrono::steady_clock::now();
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::filesystem::remove(flag);
  });
  debuggerWaitOn(flag.c_str(), "t", false, 10);
  release.join();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  EXPECT_EQ(removeTree(dir), 0);
}

}  // namespace
}  // namespace qcr
