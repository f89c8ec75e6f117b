// The server control commands of the real program against a local qcrd cluster:
// echo, trace and msglevel at run time, dump, quit, netdown as a fault a cluster
// rides out, and the messages when there is no node list to ask.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "basic/files.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"
#include "testing/scripted_server.h"

namespace qcr::test {
namespace {

using std::chrono::steady_clock;

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class ServerControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.start());
    ASSERT_NO_FATAL_FAILURE(cluster_.prepareToolBase(base_));
  }
  void expectRun(const std::vector<std::string>& args, const std::string& out,
                 const std::string& err, int status) const {
    base_.expectRun(args, out, err, status);
  }
  std::string valueAt(int i, const std::string& name) const {
    RequestResult r;
    if (cluster_.clientOf(i, 2)->VGET(&r) != 0) return "";
    const auto it = r.state.values.find(name);
    return it == r.state.values.end() ? "" : it->second.text;
  }

  LocalCluster cluster_{3};
  TestBase base_;
};

TEST_F(ServerControlTest, EchoTraceMsglevelDumpAndQuit) {
  expectRun({"echo", "hello", "world"}, "hello world\nhello world\nhello world\n", "", 0);
  // The request lines are traced at level 5: not at the start, but once the
  // level is raised, and no more once it is lowered again.
  const std::string trace = cluster_.base(1) + "/qcrd.trace";
  const std::string request = "request 2 'debug'";
  expectRun({"echo", "-n", "2", "one"}, "one\n", "", 0);
  EXPECT_EQ(count(readFileText(trace), request), 0u);
  expectRun({"trace", "-n", "2", "5"}, "trace level 4 -> 5\n", "", 0);
  expectRun({"echo", "-n", "2", "two"}, "two\n", "", 0);
  EXPECT_EQ(count(readFileText(trace), request), 1u);
  expectRun({"trace", "-n", "node2", "4"}, "trace level 5 -> 4\n", "", 0);
  expectRun({"echo", "-n", "2", "three"}, "three\n", "", 0);
  EXPECT_EQ(count(readFileText(trace), request), 2u);  // the lowering request itself
  // msglevel: the same for the server's console.
  const std::string console = cluster_.base(2) + ".log";
  expectRun({"msglevel", "-n", "3", "5"}, "msg level 0 -> 5\n", "", 0);
  expectRun({"echo", "-n", "3", "four"}, "four\n", "", 0);
  EXPECT_EQ(count(readFileText(console), request), 1u);
  // A bad level is refused by the server; the other servers are asked all the same.
  expectRun({"trace", "-n", "2,1", "high"}, "",
            "trace 2 failed: Invalid argument (err 22)\ntrace 1 failed: Invalid argument (err 22)\n",
            149);

  const ProgramResult dump = base_.vyqcr({"dump", "-n", "1"});
  EXPECT_EQ(dump.exitCode, 0);
  EXPECT_EQ(dump.out.rfind("qcrd node 1 port " + std::to_string(cluster_.address(0).port) +
                               " cluster " + std::to_string(cluster_.clusterId()) +
                               " initialised\n",
                           0),
            0u)
      << dump.out;

  expectRun({"quit", "-n", "127.0.0.1:" + std::to_string(cluster_.address(2).port)},
            "qcrd node 3 stopping\n", "", 0);
  const ChildStatus status = cluster_.waitExit(2, 20);
  EXPECT_EQ(status.exitCode, 0);
  // A server that is gone: its failure, and the others still answer.
  const ProgramResult echo = base_.vyqcr({"echo", "x"});
  EXPECT_EQ(echo.out, "x\nx\n");
  EXPECT_EQ(echo.err.rfind("echo node3 failed: ", 0), 0u) << echo.err;
  EXPECT_EQ(echo.exitCode, 149);
}

TEST_F(ServerControlTest, WithoutANodeListTheCommandSaysWhatIsMissing) {
  ASSERT_EQ(removeFile(base_.file("qcr.nodes")), 0);
  expectRun({"echo", "x"}, "",
            "Not qcr.nodes file and no node list specified (use '-n nodeList' option)\n", 156);
  // A machine that holds a server's state asks its own server.
  ASSERT_EQ(writeFile(base_.file("qcr.paxos.1"), "state", 0644, false), 0);
  const ProgramResult local =
      base_.vyqcr({"echo", "-P", std::to_string(cluster_.address(0).port), "local"});
  EXPECT_EQ(local.out, "local\n");
  EXPECT_EQ(local.exitCode, 0);
  // No repository at all.
  std::vector<std::string> env = cleanEnvironment();
  env.push_back("QCR_BASE=" + base_.file("none"));
  const ProgramResult none = runProgram({binPath("vyqcr"), "dump"}, env, 60000);
  EXPECT_EQ(none.err, "Not a server and no node list specified (use '-n nodeList' option)\n");
  EXPECT_EQ(none.exitCode, 156);
}

// netdown on one server of three: the other two go on committing; it cannot be
// reached for a while, then comes back by itself and catches up.
TEST_F(ServerControlTest, NetdownCutsOneServerOffForAWhile) {
  expectRun({"vput", "before", "1"}, "", "", 0);
  const auto start = steady_clock::now();
  expectRun({"netdown", "-n", "3", "5"}, "network down for 5 s\n", "", 0);
  int status = 0;
  EXPECT_NE(cluster_.clientOf(2, 1)->STATUS(3, &status), 0);
  expectRun({"vput", "during", "2"}, "", "", 0);
  EXPECT_EQ(valueAt(0, "during"), "2");
  ASSERT_TRUE(cluster_.waitUp(2, 60));
  const double down = std::chrono::duration<double>(steady_clock::now() - start).count();
  EXPECT_GE(down, 3.0);
  std::string caught;
  for (int i = 0; i < 300 && caught.empty(); ++i) {
    caught = valueAt(2, "during");
    if (caught.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(caught, "2");
}

}  // namespace
}  // namespace qcr::test
