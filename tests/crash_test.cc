// The crash hook in a real process: one line per fault, one dump for the first
// fault only, and death by the original signal.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "testing/run_program.h"

namespace qcr::test {
namespace {

struct Crash {
  ProgramResult run;
  std::string pid;
  std::vector<std::string> dumps;  // names of the files in the crash directory
  std::string dump;                // content of the first
};

Crash crash(const char* mode) {
  ScopedTempDir dir("qcr-crash-");
  std::vector<std::string> env = cleanEnvironment();
  env.push_back("QCR_CRASH_DIR=" + dir.path());
  Crash c;
  c.run = runProgram({binPath("crash_helper"), mode}, env);
  if (c.run.out.starts_with("pid ")) c.pid = c.run.out.substr(4, c.run.out.find('\n') - 4);
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    c.dumps.push_back(entry.path().filename().string());
  }
  if (!c.dumps.empty()) c.dump = readFileText(dir.file(c.dumps[0]));
  return c;
}

size_t count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// The hook's line for the main thread, whose thread id is the process id.
std::string line(const char* code, const char* address, const std::string& pid) {
  return std::string("[E] Exception 0x") + code + " at Address 0x" + address +
         ", [vyqcr] pid:tid " + pid + ":" + pid + ".\n";
}

TEST(CrashHook, FaultsDieByTheirSignalAfterOneLineAndOneDump) {
  struct Case {
    const char* mode;
    int signal;
    const char* code;     // code and name as printed
    const char* address;  // null: any
  } cases[] = {
      {"segv", SIGSEGV, "C0000005 (EXCEPTION_ACCESS_VIOLATION)", "0000000000000000"},
      {"abort", SIGABRT, "00000006 (Unknown_Exception_code)", "FFFFFFFFFFFFFFFF"},
      {"fpe", SIGFPE, "C0000094 (EXCEPTION_INT_DIVIDE_BY_ZERO)", nullptr},
      {"overflow", SIGSEGV, "C00000FD (EXCEPTION_STACK_OVERFLOW)", nullptr},
      {"thread-overflow", SIGSEGV, "C00000FD (EXCEPTION_STACK_OVERFLOW)", nullptr},
  };
  for (const Case& c : cases) {
    const Crash r = crash(c.mode);
    EXPECT_EQ(r.run.signal, c.signal) << c.mode;
    const std::string prefix = std::string("[E] Exception 0x") + c.code + " at Address 0x";
    EXPECT_EQ(count(r.run.err, prefix), 1u) << c.mode << ": " << r.run.err;
    if (c.address != nullptr) {
      EXPECT_EQ(r.run.err, line(c.code, c.address, r.pid)) << c.mode;
    }
    ASSERT_EQ(r.dumps, std::vector<std::string>{"vyqcr." + r.pid + ".crash"}) << c.mode;
    EXPECT_TRUE(r.dump.starts_with(prefix)) << c.mode << ": " << r.dump;
    EXPECT_NE(r.dump.find("signal " + std::to_string(c.signal) + " code "), std::string::npos);
    EXPECT_NE(r.dump.find("\nbacktrace:\n"), std::string::npos) << r.dump;
    EXPECT_NE(r.dump.find("crash_helper"), std::string::npos) << r.dump;  // a frame of ours
  }
}

TEST(CrashHook, TwoThreadsFaultingTogetherLeaveOneDump) {
  for (int round = 0; round < 3; ++round) {
    const Crash r = crash("threads");
    EXPECT_EQ(r.run.signal, SIGSEGV);
    const size_t lines = count(r.run.err, "[E] Exception 0xC0000005 (EXCEPTION_ACCESS_VIOLATION)");
    EXPECT_TRUE(lines == 1 || lines == 2) << r.run.err;
    EXPECT_EQ(r.dumps, std::vector<std::string>{"vyqcr." + r.pid + ".crash"});
    EXPECT_NE(r.dump.find("\nbacktrace:\n"), std::string::npos) << r.dump;
  }
}

TEST(CrashHook, BreakpointEndsTheRunAsSuccess) {
  const Crash r = crash("trap");
  EXPECT_EQ(r.run.exitCode, 0);
  EXPECT_EQ(r.run.err, line("80000003 (EXCEPTION_BREAKPOINT)", "FFFFFFFFFFFFFFFF", r.pid));
  EXPECT_TRUE(r.dumps.empty());

  const Crash none = crash("none");
  EXPECT_EQ(none.run.exitCode, 3);
  EXPECT_EQ(none.run.err, "");
  EXPECT_TRUE(none.dumps.empty());
}

}  // namespace
}  // namespace qcr::test
