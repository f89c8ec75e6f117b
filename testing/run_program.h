// Support for end-to-end tests that run the built programs: a scoped temporary
// directory, a clean environment, and a runner that captures standard output,
// standard error and how the program ended.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace qcr::test {

// Path of a program built into the tree's bin directory (vyqcr, qcrsh, qcrd, ...).
// QCR_BIN_DIR is defined for every test target.
inline std::string binPath(std::string_view name) {
  return std::string(QCR_BIN_DIR) + "/" + std::string(name);
}

// A fresh private directory under $TMPDIR or /tmp, removed with its contents when
// the object goes. Failing to create it fails the current test.
class ScopedTempDir final {
 public:
  explicit ScopedTempDir(const std::string& prefix = "qcr-test-");
  ~ScopedTempDir();
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(std::string_view name) const;

 private:
  std::string path_;
};

// The test's own environment without any QCR_* variable.
std::vector<std::string> cleanEnvironment();

// A base directory for one test: children run with cleanEnvironment(), QCR_BASE
// set to a scoped temporary directory, and any extra "NAME=value" entries.
class TestBase final {
 public:
  TestBase() : dir_("qcr-base-") {}
  const std::string& path() const { return dir_.path(); }
  std::string file(std::string_view name) const { return dir_.file(name); }
  std::vector<std::string> env(std::initializer_list<std::string> extra = {}) const;
  // Runs the built program (vyqcr, qcrsh, qcrcp) with args on this base
  // directory; the "qcrBaseDir" line that the test layout prints first is removed
  // (and for vyqcr checked). extra adds "NAME=value" entries to the environment
  // of this run.
  struct ProgramResult run(std::string_view program, const std::vector<std::string>& args,
                           int timeoutMs = 60000,
                           std::initializer_list<std::string> extra = {}) const;
  struct ProgramResult vyqcr(const std::vector<std::string>& args, int timeoutMs = 60000,
                             std::initializer_list<std::string> extra = {}) const;
  // vyqcr, expecting exactly out, err and status.
  void expectRun(const std::vector<std::string>& args, const std::string& out,
                 const std::string& err, int status) const;

 private:
  ScopedTempDir dir_;
};

struct ProgramResult {
  std::string out;
  std::string err;
  int exitCode = -1;  // -1 when a signal ended the program
  int signal = -1;    // -1 when it exited
};

// Runs argv[0] (a path) with argv and exactly env; standard input is empty. A run
// that cannot start or outlives timeoutMillis (it is then killed) fails the test.
ProgramResult runProgram(const std::vector<std::string>& argv,
                         const std::vector<std::string>& env, int timeoutMillis = 60000);

// Whole content of a file, "" when it cannot be read.
std::string readFileText(const std::string& path);

}  // namespace qcr::test
