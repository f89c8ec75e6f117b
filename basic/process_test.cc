#include "basic/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "basic/tempdir.h"

namespace qcr {
namespace {

TEST(Process, DecodesWaitStatuses) {
  struct Case {
    int status;
    int exitCode;
    int signal;
  } cases[] = {
      {W_EXITCODE(0, 0), 0, -1},       {W_EXITCODE(1, 0), 1, -1},
      {W_EXITCODE(255, 0), 255, -1},   {W_EXITCODE(0, SIGKILL), -1, SIGKILL},
      {W_EXITCODE(0, SIGSEGV) | WCOREFLAG, -1, SIGSEGV},
      {W_STOPCODE(SIGSTOP), -1, -1},
  };
  for (const Case& c : cases) {
    const ChildStatus status = decodeWaitStatus(c.status);
    EXPECT_EQ(status.exitCode, c.exitCode) << c.status;
    EXPECT_EQ(status.signal, c.signal) << c.status;
  }
}

TEST(Process, RunsShellLines) {
  struct Case {
    const char* line;
    int exitCode;
    int signal;
  } cases[] = {
      {"true", 0, -1},
      {"exit 3", 3, -1},
      {"test \"a b\" = 'a b'", 0, -1},  // the line is parsed by the shell
      {"kill -TERM $$", -1, SIGTERM},
      {"/nonexistent/program", 127, -1},
  };
  for (const Case& c : cases) {
    ChildStatus status;
    ASSERT_EQ(runShell(c.line, &status), 0) << c.line;
    EXPECT_EQ(status.exitCode, c.exitCode) << c.line;
    EXPECT_EQ(status.signal, c.signal) << c.line;
  }
}

TEST(Process, CapturesOutputWithTheGivenEnvironment) {
  CapturedRun run;
  ASSERT_EQ(runCaptured({"/bin/sh", "-c", "echo \"$X\"; echo err >&2; cat; exit 4"}, {"X=ok"},
                        10000, &run),
            0);
  EXPECT_EQ(run.out, "ok\n");  // standard input is empty
  EXPECT_EQ(run.err, "err\n");
  EXPECT_EQ(run.status.exitCode, 4);

  CapturedRun slow;
  EXPECT_EQ(runCaptured({"/bin/sh", "-c", "echo started; exec sleep 30"}, {}, 200, &slow),
            ETIMEDOUT);
  EXPECT_EQ(slow.out, "started\n");
  EXPECT_EQ(slow.status.signal, SIGKILL);

  CapturedRun missing;
  EXPECT_EQ(runCaptured({"/nonexistent/program"}, {}, 1000, &missing), ENOENT);
}

TEST(TempDir, IsCreatedFreshAndRemovedWhole) {
  std::string a;
  std::string b;
  ASSERT_EQ(makeTempDir("qcr-test-", &a), 0);
  ASSERT_EQ(makeTempDir("qcr-test-", &b), 0);
  EXPECT_NE(a, b);
  ChildStatus status;
  ASSERT_EQ(runShell("mkdir " + a + "/sub && touch " + a + "/sub/f && ln -s " + b + " " + a +
                         "/link",
                     &status),
            0);
  EXPECT_EQ(removeTree(a), 0);
  EXPECT_EQ(runShell("test ! -e " + a + " && test -d " + b, &status), 0);
  EXPECT_EQ(status.exitCode, 0);  // the link's target survives
  EXPECT_EQ(removeTree(b), 0);
  EXPECT_EQ(removeTree(b), 0);    // already gone
}

}  // namespace
}  // namespace qcr
