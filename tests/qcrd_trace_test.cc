// qcrd's trace as an administrator meets it: values and file contents never in
// it at the default level, and a trace moved away by log rotation followed by a
// new file once the server gets SIGHUP.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "basic/background.h"
#include "basic/files.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr::test {
namespace {

std::string traceOf(const LocalCluster& cluster, int i) {
  std::string text;
  (void)readFile(cluster.base(i) + "/qcrd.trace", &text);
  return text;
}

TEST(QcrdTraceTest, ValuesAndFileContentsStayOutAndSighupReopensTheTrace) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  ScopedTempDir dir;
  const std::string secret = "s3cr3t-value-7d1f";
  const std::string content = "file-content-9a2e";
  ASSERT_EQ(writeFile(dir.file("f"), content, 0644, false), 0);
  RequestResult r;
  ASSERT_EQ(cluster.client()->VPUT("password", secret, -1, -1, &r), 0);
  ASSERT_EQ(cluster.client()->FPUT("motd", dir.file("f"), -1, -1, 0, &r), 0);
  bool committedTraced = false;
  for (int i = 0; i < cluster.size(); ++i) {
    const std::string trace = traceOf(cluster, i);
    EXPECT_EQ(trace.find(secret), std::string::npos) << "node " << i << ":\n" << trace;
    EXPECT_EQ(trace.find(content), std::string::npos) << "node " << i;
    committedTraced = committedTraced || trace.find("committed seq") != std::string::npos;
  }
  EXPECT_TRUE(committedTraced) << "the commits are traced, without their values";

  // Rotation: the old file moves away, SIGHUP makes the server open a new one.
  const std::string trace = cluster.base(0) + "/qcrd.trace";
  ASSERT_EQ(renameFile(trace, trace + ".1"), 0);
  std::string pidText;
  ASSERT_EQ(readFile(cluster.base(0) + "/qcrd.pid", &pidText), 0);
  ASSERT_EQ(signalProcess(std::stoi(pidText), Signal::kHangUp), 0);
  for (int waited = 0; waited < 100 && !fileExists(trace); ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_TRUE(fileExists(trace)) << "no new trace file after SIGHUP";
  EXPECT_TRUE(cluster.waitUp(0, 5)) << "SIGHUP stopped the server";
  ASSERT_EQ(cluster.client()->VPUT("other", secret, -1, -1, &r), 0);
  const std::string fresh = traceOf(cluster, 0);
  EXPECT_NE(fresh.find("trace reopened"), std::string::npos) << fresh;
  EXPECT_EQ(fresh.find(secret), std::string::npos) << fresh;
}

}  // namespace
}  // namespace qcr::test
