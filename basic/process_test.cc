#include "basic/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "basic/files.h"
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

TEST(Process, RunsArgumentVectorsWithoutAShell) {
  const std::string odd = "a b'c;touch x\"$(id)";
  struct Case {
    std::vector<std::string> argv;
    int rc;
    int exitCode;
    int signal;
  } cases[] = {
      {{"/bin/true"}, 0, 0, -1},
      {{"/bin/sh", "-c", "exit 3"}, 0, 3, -1},
      // Each element arrives whole, unparsed: the script compares $1 with the text.
      {{"/bin/sh", "-c", "test \"$1\" = \"$2\"", "sh", odd, odd}, 0, 0, -1},
      {{"/bin/sh", "-c", "test $# = 1", "sh", odd}, 0, 0, -1},
      {{"/bin/sh", "-c", "kill -TERM $$"}, 0, -1, SIGTERM},
      {{"/bin/sleep", "30"}, ETIMEDOUT, -1, SIGKILL},
      {{"/nonexistent/program"}, ENOENT, -1, -1},
  };
  for (const Case& c : cases) {
    ChildStatus status;
    EXPECT_EQ(runAndWait(c.argv, 300, &status), c.rc) << c.argv.back();
    EXPECT_EQ(status.exitCode, c.exitCode) << c.argv.back();
    EXPECT_EQ(status.signal, c.signal) << c.argv.back();
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

TEST(Process, PipelinesFeedEachStageTheOneBefore) {
  std::string dir;
  ASSERT_EQ(makeTempDir("qcr-test-", &dir), 0);
  ASSERT_EQ(writeFile(dir + "/in", "abc; $(x)\n", 0600, false), 0);
  std::vector<ChildStatus> st;
  ASSERT_EQ(runPipeline({{"/bin/cat"}, {"/usr/bin/tr", "a-z", "A-Z"}}, dir + "/in", dir + "/out",
                        10000, &st),
            0);
  std::string out;
  ASSERT_EQ(readFile(dir + "/out", &out), 0);
  EXPECT_EQ(out, "ABC; $(X)\n");
  ASSERT_EQ(st.size(), 2u);
  EXPECT_EQ(st[1].exitCode, 0);

  // The output is always a new file: nothing is written through what is there.
  ASSERT_EQ(makeSymlink(dir + "/in", dir + "/link"), 0);
  EXPECT_EQ(runPipeline({{"/bin/cat"}}, dir + "/in", dir + "/link", 10000, &st), EEXIST);
  EXPECT_EQ(runPipeline({{"/bin/cat"}}, dir + "/in", dir + "/out", 10000, &st), EEXIST);
  EXPECT_EQ(runPipeline({{"/bin/cat"}}, dir + "/missing", "", 10000, &st), ENOENT);

  // A stage that cannot start ends the ones before it; a slow one ends at the deadline.
  EXPECT_EQ(runPipeline({{"/bin/sleep", "30"}, {"/nonexistent/program"}}, "", "", 10000, &st),
            ENOENT);
  EXPECT_EQ(st[0].signal, SIGKILL);
  EXPECT_EQ(runPipeline({{"/bin/sleep", "30"}, {"/bin/cat"}}, "", "", 200, &st), ETIMEDOUT);
  EXPECT_EQ(st[0].signal, SIGKILL);
  EXPECT_EQ(removeTree(dir), 0);
}

TEST(TempDir, IsCreatedFreshAndRemovedWhole) {
  std::string a;
  std::string b;
  ASSERT_EQ(makeTempDir("qcr-test-", &a), 0);
  ASSERT_EQ(makeTempDir("qcr-test-", &b), 0);
  EXPECT_NE(a, b);
  ASSERT_EQ(makeDirectory(a + "/sub", 0700), 0);
  ASSERT_EQ(writeFile(a + "/sub/f", "", 0600, false), 0);
  ASSERT_EQ(makeSymlink(b, a + "/link"), 0);
  EXPECT_EQ(removeTree(a), 0);
  EXPECT_FALSE(fileExists(a));
  EXPECT_TRUE(isDirectory(b));  // the link's target survives
  EXPECT_EQ(removeTree(b), 0);
  EXPECT_EQ(removeTree(b), 0);    // already gone
}

}  // namespace
}  // namespace qcr
