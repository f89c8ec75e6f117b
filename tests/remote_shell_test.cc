// qcrsh against qcrd servers: the command runs without a shell, with its
// assignments, and its end shows in qcrsh's status and messages; a server that
// was not started to allow remote work, or a secured one, refuses strangers,
// also when the request is sent by hand.
#include <gtest/gtest.h>

#include "basic/files.h"
#include "qcr/client/auth_keys.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/client/attempt.h"
#include "qcr/server/handlers.h"
#include "qcr/transfer/remote.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

using test::LocalCluster;
using test::ProgramResult;
using test::TestBase;

// The error of the answer to one hand-sent request: 0 for an answer that is no
// refusal, else the failed reply's reason or the transfer's error.
int answer(const PeerAddress& address, int type, const std::vector<uint8_t>& body) {
  ConnectParams params;
  std::unique_ptr<ConnImplementation> conn;
  int rc = connect(address, params, &conn);
  Message reply;
  if (rc == 0) rc = conn->send(type, body);
  if (rc == 0) rc = conn->receive(&reply);
  if (rc != 0) return rc;
  return reply.type == MSG_TYPE_FAILED ? failedAnswerError(reply) : 0;
}

class RemoteShellTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.startServer(0, {"--allow-remote"}));
    ASSERT_NO_FATAL_FAILURE(cluster_.startServer(1));
    // node3 names a port where nothing listens.
    ASSERT_EQ(writeFile(base_.file("qcr.nodes"),
                        cluster_.nodeListText(2) + "3,0,127.0.0.1,1,node3\n", 0644, false),
              0);
    ASSERT_EQ(makeDirectory(base_.file("committed"), 0755), 0);
    ASSERT_EQ(writeFile(base_.file("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  }
  ProgramResult qcrsh(const std::vector<std::string>& args) const {
    return base_.run("qcrsh", args);
  }

  LocalCluster cluster_{2};
  TestBase base_;
};

TEST_F(RemoteShellTest, RunsTheCommandWithoutAShell) {
  ProgramResult r = qcrsh({"node1", "/bin/ksh", "-c", "print -- hello"});
  EXPECT_EQ(r.out, "hello\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.exitCode, 0);
  // Assignments reach the environment; quoted words stay one argument; nothing
  // is interpreted by a shell on the node.
  r = qcrsh({"node1", "A=1", "B='two  words'", "/usr/bin/env"});
  EXPECT_NE(r.out.find("\nA=1\nB=two  words\n"), std::string::npos) << r.out;
  r = qcrsh({"-l", "admin", "node1", "/bin/echo", "'$(id) ; `id`'", "*"});
  EXPECT_EQ(r.out, "$(id) ; `id` *\n");
  // The node may be named by its address too.
  r = qcrsh({"127.0.0.1", "echo", "by", "address"});
  EXPECT_EQ(r.out, "by address\n");
  EXPECT_EQ(r.exitCode, 0);
}

TEST_F(RemoteShellTest, EachWayACommandEndsHasItsOwnStatus) {
  ProgramResult r = qcrsh({"node1", "/bin/sh", "-c", "'echo oops >&2; exit 3'"});
  EXPECT_EQ(r.err, "oops\nchild returned exit code 3\n");
  EXPECT_EQ(r.exitCode, 3);
  r = qcrsh({"node1", "/bin/sh", "-c", "'kill -KILL $$'"});
  EXPECT_EQ(r.err, "child killed by signal 9\n");
  EXPECT_EQ(r.exitCode, 128 + 9);
  r = qcrsh({"node1", "no-such-program"});
  EXPECT_EQ(r.err, "qcrd: cannot run 'no-such-program': No such file or directory\n"
                   "child returned exit code 127\n");
  EXPECT_EQ(r.exitCode, 127);
  r = qcrsh({"node3", "/bin/true"});
  EXPECT_EQ(r.err, "qcrsh: connect to node3 failed (err 61)\n");
  EXPECT_EQ(r.exitCode, 255);
  r = qcrsh({"no-such-host.invalid", "/bin/true"});
  EXPECT_EQ(r.err, "qcrsh: unknown host 'no-such-host.invalid'\n");
  EXPECT_EQ(r.exitCode, 255);
  r = qcrsh({"node1", "/bin/echo", "'open"});
  // The message's own line end comes before the one every message gets.
  EXPECT_EQ(r.err, "unmatched quotes: 'open \n\n");
  EXPECT_EQ(r.exitCode, 22);
}

TEST_F(RemoteShellTest, OutputBeyondTheLimitKillsTheCommand) {
  const std::string bytes = std::to_string(kRemoteOutputBytes + 1);
  const ProgramResult r = qcrsh({"node1", "/usr/bin/head", "-c", bytes, "/dev/zero"});
  EXPECT_EQ(r.out.size(), kRemoteOutputBytes);
  EXPECT_NE(r.err.find("wrote more than"), std::string::npos) << r.err.substr(0, 200);
  EXPECT_EQ(r.exitCode, 128 + 9);
}

TEST_F(RemoteShellTest, AServerNotStartedForItRefusesStrangers) {
  const ProgramResult r = qcrsh({"node2", "/bin/echo", "hi"});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "qcrsh: node2 refused: " + std::string(errText(E_NOT_AUTHORIZED)) +
                       " (err 703)\n");
  EXPECT_EQ(r.exitCode, 255);
  // By hand: well-formed requests are refused; ill-formed ones get 818 and the
  // server keeps serving.
  const std::vector<uint8_t> sh = encodeBody(ShellRequest{{}, {"/bin/echo", "hi"}});
  FileAnnouncement ann{"/etc/hostname", 0, 0644, 0, 0, 0, 0, "/tmp/x"};
  EXPECT_EQ(answer(cluster_.address(1), MSG_TYPE_SH, sh), E_NOT_AUTHORIZED);
  EXPECT_EQ(answer(cluster_.address(1), MSG_TYPE_CP_TO, encodeBody(ann)), E_NOT_AUTHORIZED);
  EXPECT_EQ(answer(cluster_.address(1), MSG_TYPE_CP_FROM, encodeBody(CopyFromRequest{"/etc"})),
            E_NOT_AUTHORIZED);
  for (const PeerAddress& address : cluster_.addresses()) {
    EXPECT_EQ(answer(address, MSG_TYPE_SH, {0xff, 0xff}), E_ILL_FORMED_MSG);
    EXPECT_EQ(answer(address, MSG_TYPE_SH, {}), E_ILL_FORMED_MSG);
    EXPECT_EQ(answer(address, MSG_TYPE_CP_FROM, {'/', 'x'}), E_ILL_FORMED_MSG);  // no NUL
  }
  // Where it is allowed, a request that names no program or a bad assignment is
  // refused too.
  EXPECT_EQ(answer(cluster_.address(0), MSG_TYPE_SH, encodeBody(ShellRequest{{}, {""}})), EINVAL);
  EXPECT_EQ(answer(cluster_.address(0), MSG_TYPE_SH,
                   encodeBody(ShellRequest{{"A B=1"}, {"/bin/true"}})),
            EINVAL);
  EXPECT_EQ(qcrsh({"node1", "/bin/echo", "still", "up"}).out, "still up\n");
}

TEST(RemoteShellSecureTest, OnlyAnAuthenticatedClientGetsThrough) {
  LocalCluster cluster(1);
  ASSERT_NO_FATAL_FAILURE(cluster.useSecurity());
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  TestBase withKeys;
  TestBase stranger;
  for (const TestBase* base : {&withKeys, &stranger}) {
    ASSERT_EQ(writeFile(base->file("qcr.nodes"), cluster.nodeListText(1), 0644, false), 0);
    ASSERT_EQ(makeDirectory(base->file("committed"), 0755), 0);
  }
  KeyFiles keys;
  ASSERT_EQ(readKeyFiles(keyFilePaths(cluster.keysDir()), &keys), 0);
  ASSERT_EQ(writeKeyFiles(keyFilePaths(withKeys.path()), keys), 0);
  ProgramResult r = withKeys.run("qcrsh", {"node1", "/bin/echo", "trusted"});
  EXPECT_EQ(r.out, "trusted\n");
  EXPECT_EQ(r.exitCode, 0);
  r = stranger.run("qcrsh", {"node1", "/bin/echo", "stranger"});
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("qcrsh: "), std::string::npos) << r.err;
  EXPECT_EQ(r.exitCode, 255);
  EXPECT_EQ(answer(cluster.address(0), MSG_TYPE_SH,
                   encodeBody(ShellRequest{{}, {"/bin/echo", "hi"}})),
            E_NO_SECURITY);
}

}  // namespace
}  // namespace qcr
