#include "testing/run_program.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "basic/process.h"
#include "basic/tempdir.h"

namespace qcr::test {

ScopedTempDir::ScopedTempDir(const std::string& prefix) {
  const int rc = makeTempDir(prefix, &path_);
  if (rc != 0) ADD_FAILURE() << "cannot create a temporary directory (err " << rc << ")";
}

ScopedTempDir::~ScopedTempDir() {
  if (path_.empty()) return;
  if (const int rc = removeTree(path_); rc != 0) {
    ADD_FAILURE() << "cannot remove " << path_ << " (err " << rc << ")";
  }
}

std::string ScopedTempDir::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

std::vector<std::string> cleanEnvironment() {
  std::vector<std::string> env;
  for (std::string& entry : environmentEntries()) {
    if (!entry.starts_with("QCR_")) env.push_back(std::move(entry));
  }
  return env;
}

std::vector<std::string> TestBase::env(std::initializer_list<std::string> extra) const {
  std::vector<std::string> env = cleanEnvironment();
  env.push_back("QCR_BASE=" + path());
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

ProgramResult TestBase::vyqcr(const std::vector<std::string>& args, int timeoutMs,
                              std::initializer_list<std::string> extra) const {
  return run("vyqcr", args, timeoutMs, extra);
}

ProgramResult TestBase::run(std::string_view program, const std::vector<std::string>& args,
                            int timeoutMs, std::initializer_list<std::string> extra) const {
  std::vector<std::string> argv = {binPath(program)};
  argv.insert(argv.end(), args.begin(), args.end());
  ProgramResult r = runProgram(argv, env(extra), timeoutMs);
  // vyqcr always names the base directory first; qcrsh and qcrcp only once
  // their arguments took them that far.
  const std::string announce = "qcrBaseDir: " + path() + "\n";
  if (program == "vyqcr") {
    EXPECT_EQ(r.out.substr(0, announce.size()), announce);
  }
  if (r.out.starts_with(announce)) r.out.erase(0, announce.size());
  return r;
}

void TestBase::expectRun(const std::vector<std::string>& args, const std::string& out,
                         const std::string& err, int status) const {
  const ProgramResult r = vyqcr(args, 120000);
  EXPECT_EQ(r.out, out) << args[0];
  EXPECT_EQ(r.err, err) << args[0];
  EXPECT_EQ(r.exitCode, status) << args[0];
}

ProgramResult runProgram(const std::vector<std::string>& argv,
                         const std::vector<std::string>& env, int timeoutMillis) {
  CapturedRun run;
  const int rc = runCaptured(argv, env, timeoutMillis, &run);
  if (rc != 0) ADD_FAILURE() << "running " << argv.at(0) << " failed (err " << rc << ")";
  return {run.out, run.err, run.status.exitCode, run.status.signal};
}

std::string readFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace qcr::test
