// A secured local cluster end to end: the tool's commands with and without keys,
// requests sent by hand on connections that never authenticated, a key change
// under load, the auth command on an open cluster, and the tool without its TLS
// provider.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "basic/files.h"
#include "qcr/client/auth_keys.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/peer_link.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

using test::LocalCluster;
using test::ProgramResult;
using test::TestBase;

// A tool base with the local node list and, when keysFrom is given, its keys.
void prepareBase(const TestBase& base, const LocalCluster& cluster, const std::string& keysFrom) {
  ASSERT_EQ(writeFile(base.file("qcr.nodes"), cluster.nodeListText(cluster.size()), 0644, false),
            0);
  ASSERT_EQ(makeDirectory(base.file("committed"), 0755), 0);
  if (keysFrom.empty()) return;
  KeyFiles files;
  ASSERT_EQ(readKeyFiles(keyFilePaths(keysFrom), &files), 0);
  ASSERT_EQ(writeKeyFiles(keyFilePaths(base.path()), files), 0);
}

class SecureClusterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.useSecurity());
    ASSERT_NO_FATAL_FAILURE(cluster_.start());
    ASSERT_NO_FATAL_FAILURE(prepareBase(base_, cluster_, cluster_.keysDir()));
  }

  std::string value(const std::string& name) const {
    RequestResult r;
    if (cluster_.client()->VGET(&r) != 0) return "?";
    const auto it = r.state.values.find(name);
    return it == r.state.values.end() ? "" : it->second.text;
  }

  // A connection that announces no key; peer marks the hello as another server's.
  std::unique_ptr<ConnImplementation> unauthenticated(bool peer = false) const {
    ConnectParams params;
    params.clusterId = cluster_.clusterId();
    params.helloFlags = peer ? kPeerHelloFlag : 0;
    std::unique_ptr<ConnImplementation> conn;
    EXPECT_EQ(connect(cluster_.address(0), params, &conn), 0);
    return conn;
  }

  // The answer to one request: 0 for an answer that is no refusal, else the error
  // of the failed reply, or the transfer's error.
  static int answer(ConnImplementation& conn, int type, const std::vector<uint8_t>& body) {
    Message reply;
    int rc = conn.send(type, body);
    if (rc == 0) rc = conn.receive(&reply);
    if (rc != 0) return rc;
    return reply.type == MSG_TYPE_FAILED ? failedAnswerError(reply) : 0;
  }

  LocalCluster cluster_{3};
  TestBase base_;
};

TEST_F(SecureClusterTest, CommandsWorkWithKeysAndChangesNeedThem) {
  ASSERT_EQ(writeFile(base_.file("f"), "file body\n", 0644, false), 0);
  base_.expectRun({"vput", "a", "one"}, "", "", 0);
  base_.expectRun({"vget", "a"}, "vget:1:one\n", "", 0);
  base_.expectRun({"fput", "f.txt", base_.file("f")}, "", "", 0);
  base_.expectRun({"fget", "f.txt", base_.file("g")}, "fget:1\n", "", 0);
  EXPECT_EQ(test::readFileText(base_.file("g")), "file body\n");
  EXPECT_EQ(base_.vyqcr({"flist"}).exitCode, 0);
  EXPECT_EQ(base_.vyqcr({"lsnodes"}).exitCode, 0);
  EXPECT_EQ(base_.vyqcr({"query"}).exitCode, 0);
  base_.expectRun({"fdel", "f.txt"}, "", "", 0);
  base_.expectRun({"vdel", "a"}, "", "", 0);
  base_.expectRun({"vput", "a", "two"}, "", "", 0);
  // Without a keys file: reads are served, the first change stops with 720.
  TestBase stranger;
  ASSERT_NO_FATAL_FAILURE(prepareBase(stranger, cluster_, ""));
  stranger.expectRun({"vget", "a"}, "vget:2:two\n", "", 0);
  const ProgramResult r = stranger.vyqcr({"vput", "a", "three"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.err.find("(err 720)"), std::string::npos) << r.err;
  EXPECT_EQ(value("a"), "two");
}

TEST_F(SecureClusterTest, HandSentRequestsWithoutAuthenticationChangeNothing) {
  RequestResult put;
  ASSERT_EQ(cluster_.client()->VPUT("a", "kept", -1, -1, &put), 0);
  VputRequest vput;
  vput.name = "a";
  vput.value = "changed";
  // What the catalogue lets through without authentication is served.
  EXPECT_EQ(answer(*unauthenticated(), MSG_TYPE_VGET, {}), 0);
  EXPECT_EQ(answer(*unauthenticated(), MSG_TYPE_VPUT, encodeBody(vput)), E_NO_SECURITY);
  EXPECT_EQ(answer(*unauthenticated(), MSG_TYPE_DISCOVER, {}), E_NO_SECURITY);
  EXPECT_EQ(answer(*unauthenticated(), MSG_TYPE_AUTH, {0, 0, 0}), E_NOT_AUTHORIZED);
  // A connection that began with a read never authenticates afterwards.
  auto conn = unauthenticated();
  EXPECT_EQ(answer(*conn, MSG_TYPE_VGET, {}), 0);
  EXPECT_EQ(answer(*conn, MSG_TYPE_VPUT, encodeBody(vput)), E_NOT_AUTHORIZED);
  // Server-to-server messages from a connection that claims to be a peer.
  EXPECT_EQ(answer(*unauthenticated(true), MSG_TYPE_PXWRITE, {1, 2, 3}), E_NO_SECURITY);
  EXPECT_EQ(answer(*unauthenticated(true), MSG_TYPE_FXFER, {1, 2, 3}), E_NO_SECURITY);
  EXPECT_EQ(answer(*unauthenticated(true), MSG_TYPE_PXRDWR, {1, 2, 3}), E_NO_SECURITY);  // a sync image
  EXPECT_EQ(answer(*unauthenticated(true), MSG_TYPE_VPUT, encodeBody(vput)), E_NO_SECURITY);
  // A hello that announces a key, then the request's bytes where the exchange
  // belongs.
  int sock = -1;
  ASSERT_EQ(openStreamSocket(cluster_.address(0), &sock), 0);
  auto raw = makeSocketTransport(sock);
  ASSERT_EQ(connectSocket(sock, cluster_.address(0), 2000), 0);
  Hello hello;
  hello.clusterId = cluster_.clusterId();
  hello.security = HelloSecurityItem{1, "AUTHONLY"};
  const std::vector<uint8_t> bytes = buildClientHello(hello);
  ASSERT_EQ(raw->sendAll(bytes.data(), bytes.size(), 2000), 0);
  Hello reply;
  ASSERT_EQ(readHelloReply(*raw, 2000, &reply), 0);
  ASSERT_TRUE(reply.security.has_value());
  ConnImplementation liar(std::move(raw), cluster_.address(0), SecurityParams{});
  EXPECT_NE(answer(liar, MSG_TYPE_VPUT, encodeBody(vput)), 0);
  EXPECT_EQ(value("a"), "kept");
  // Another cluster's key of the same generation is refused by this side.
  const test::ScopedTempDir other;
  KeyFiles files;
  ASSERT_EQ(CreateClusterKeys(1, &files), 0);
  ASSERT_EQ(writeKeyFiles(keyFilePaths(other.path()), files), 0);
  std::unique_ptr<Client> client = cluster_.clientOf(0, 2);
  ASSERT_EQ(client->security().startup(false, keyFilePaths(other.path())), 0);
  std::unique_ptr<ConnImplementation> otherConn;
  ASSERT_EQ(client->connectServer(1, 2000, &otherConn), 0);
  EXPECT_EQ(otherConn->send(MSG_TYPE_VPUT, encodeBody(vput)), E_NOT_AUTHORIZED);
  EXPECT_EQ(value("a"), "kept");
}

TEST_F(SecureClusterTest, RefreshUnderLoadRefusesNobodyThenTheOldKeys) {
  const test::ScopedTempDir saved;
  KeyFiles old;
  ASSERT_EQ(readKeyFiles(keyFilePaths(cluster_.keysDir()), &old), 0);
  ASSERT_EQ(writeKeyFiles(keyFilePaths(saved.path()), old), 0);
  // Five writers, each a tool on a node's own files (which its server renews).
  std::atomic<bool> done{false};
  std::atomic<int> writes{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  for (int w = 0; w < 5; ++w) {
    writers.emplace_back([&, w] {
      const std::string base = cluster_.base(w % 3);
      for (int i = 0; i < 200 && !done; ++i) {
        std::vector<std::string> env = test::cleanEnvironment();
        env.push_back("QCR_BASE=" + base);
        const ProgramResult r = test::runProgram(
            {test::binPath("vyqcr"), "vput", "w" + std::to_string(w), std::to_string(i)}, env,
            60000);
        ++writes;
        if (r.exitCode != 0) {
          ++failures;
          ADD_FAILURE() << "writer " << w << ": " << r.err;
        }
      }
    });
  }
  while (writes < 5) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const ProgramResult refresh = base_.vyqcr({"refresh"}, 120000);
  const int during = writes;
  while (writes < during + 5) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  done = true;
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(refresh.exitCode, 0) << refresh.err;
  EXPECT_EQ(failures, 0);
  // The old generation is refused now; the new one is the servers' committed one.
  std::unique_ptr<Client> client = cluster_.clientOf(0, 2);
  ASSERT_EQ(client->security().startup(false, keyFilePaths(saved.path())), 0);
  std::unique_ptr<ConnImplementation> conn;
  ASSERT_EQ(client->connectServer(1, 2000, &conn), 0);
  EXPECT_EQ(conn->securityParams().peerKeyGen, 2);
  EXPECT_EQ(conn->send(MSG_TYPE_VPUT, encodeBody(VputRequest{})), E_NOT_AUTHORIZED);
  base_.expectRun({"vput", "after", "refresh"}, "", "", 0);
}

TEST(OpenClusterTest, AuthTurnsAuthenticationOn) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  TestBase base;
  ASSERT_NO_FATAL_FAILURE(prepareBase(base, cluster, ""));
  ASSERT_EQ(writeFile(base.file("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  base.expectRun({"vput", "a", "open"}, "", "", 0);
  base.expectRun({"auth"}, "", "", 0);
  // While the walk was half done, secured and open nodes could not agree: a
  // change may fail until the leader holds its lease again.
  int status = -1;
  for (int i = 0; i < 20 && status != 0; ++i) {
    status = base.vyqcr({"vput", "a", "secured"}).exitCode;
    if (status != 0) std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  EXPECT_EQ(status, 0);
  TestBase stranger;
  ASSERT_NO_FATAL_FAILURE(prepareBase(stranger, cluster, ""));
  const ProgramResult r = stranger.vyqcr({"vput", "a", "stranger"});
  EXPECT_NE(r.err.find("(err 720)"), std::string::npos) << r.err;
  stranger.expectRun({"vget", "a"}, "vget:2:secured\n", "", 0);
}

TEST(NoTlsLibraryTest, OnlySecurityNeedsTheLibrary) {
  LocalCluster cluster(1);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  TestBase base;
  ASSERT_NO_FATAL_FAILURE(prepareBase(base, cluster, ""));
  const auto run = [&base](const std::vector<std::string>& args) {
    return base.vyqcr(args, 60000, {"QCR_TLS_LIBRARY=/nonexistent/libssl.so.3"});
  };
  RequestResult put;
  ASSERT_EQ(cluster.client()->VPUT("a", "v", -1, -1, &put), 0);
  // No keys: nothing needs the library, reads run.
  EXPECT_EQ(run({"vget", "a"}).out, "vget:1:v\n");
  KeyFiles files;
  ASSERT_EQ(CreateClusterKeys(1, &files), 0);
  ASSERT_EQ(writeKeyFiles(keyFilePaths(base.path()), files), 0);
  const ProgramResult r = run({"vget", "a"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_EQ(r.err,
            "[E] Unable to load keys from " + keyFilePaths(base.path()).authorizedKeys +
                ", err 721 rc 721.\n[E] Failed to load or initialize security library.\n"
                "security initialization failed (err 721)\n");
  // Switched off by the security setting, the keys are not even read.
  ASSERT_EQ(writeFile(base.file("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  EXPECT_EQ(run({"vget", "a"}).exitCode, 0);
}

}  // namespace
}  // namespace qcr
