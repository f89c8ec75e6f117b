// End-to-end tests of qcrd clusters: changes commit and read back while a
// minority is stopped or killed, fail cleanly without a majority, follow the
// leader, move files to servers that missed them, and survive state writes cut
// short.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "basic/files.h"
#include "basic/process.h"
#include "qcr/client/client.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"
#include "testing/cluster_fixture.h"

namespace qcr::test {
namespace {

using std::chrono::steady_clock;

int fput(Client& client, const std::string& name, const std::string& path) {
  RequestResult r;
  return client.FPUT(name, path, -1, -1, 0, &r);
}
int fdel(Client& client, const std::string& name, int32_t cond) {
  RequestResult r;
  return client.FDEL(name, cond, &r);
}

// Two of five stopped: a paused leader (it comes back stale and must follow) and
// a killed server that missed a file and pulls it to serve it.
TEST(Cluster, FiveNodesCommitWithTwoDownAndAgreeAfterwards) {
  LocalCluster c(5);
  c.start();
  const std::unique_ptr<Client> cl = c.client();
  ASSERT_EQ(vput(*cl, "k", "0"), 0);
  const int leader = c.leaderIndex();
  const int other = (leader + 2) % 5;
  c.pause(leader);
  c.kill(other);
  for (int i = 1; i <= 3; ++i) ASSERT_EQ(vput(*cl, "k", std::to_string(i)), 0) << i;
  EXPECT_NE(c.leaderIndex(), leader);
  ScopedTempDir tmp;
  ASSERT_EQ(writeFile(tmp.file("f"), "file content\n", 0644, false), 0);
  ASSERT_EQ(fput(*cl, "conf", tmp.file("f")), 0);
  c.resume(leader);
  c.startServer(other);
  ASSERT_EQ(vput(*cl, "k", "4"), 0);
  for (int i = 0; i < 5; ++i) {
    RequestResult r;
    ASSERT_EQ(c.clientOf(i)->VGET(&r), 0) << "server " << i;
    EXPECT_EQ(r.state.values["k"].text, "4") << "server " << i;
    EXPECT_EQ(r.state.values["k"].version, 5) << "server " << i;
  }
  RequestResult got;
  ASSERT_EQ(c.clientOf(other)->FGET("conf", tmp.file("back"), -1, &got), 0);
  EXPECT_EQ(readFileText(tmp.file("back")), "file content\n");
  // A clean stop: SIGTERM ends every server with status 0.
  for (int i = 0; i < 5; ++i) EXPECT_EQ(c.terminate(i).exitCode, 0) << "server " << i;
}

TEST(Cluster, WithoutMajorityAChangeFailsAndLeavesNothingBehind) {
  LocalCluster c(3);
  c.start();
  const std::unique_ptr<Client> cl = c.client(10);
  ASSERT_EQ(vput(*cl, "kept", "yes"), 0);
  const int leader = c.leaderIndex();
  const std::unique_ptr<Client> survivor = c.clientOf((leader + 2) % 3, 10);
  ASSERT_EQ(valueAt(*survivor, "kept"), "yes");  // it has caught up
  c.kill(leader);
  c.kill((leader + 1) % 3);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // past the lease
  const auto t0 = steady_clock::now();
  EXPECT_EQ(vput(*cl, "lost", "no"), E_NO_QUORUM);
  EXPECT_LT(steady_clock::now() - t0, std::chrono::seconds(10));
  // The survivor cannot prove its state current: reads fail, a query is best effort.
  RequestResult r;
  EXPECT_EQ(survivor->VGET(&r), E_NO_QUORUM);
  RequestResult q;
  ASSERT_EQ(survivor->QUERY(&q), 0);
  EXPECT_FALSE(q.authoritative);
  EXPECT_EQ(q.state.values["kept"].text, "yes");
  c.startServer(leader);
  c.startServer((leader + 1) % 3);
  const std::unique_ptr<Client> again = c.client();
  EXPECT_EQ(valueAt(*again, "kept"), "yes");
  EXPECT_EQ(valueAt(*again, "lost"), "");
  EXPECT_EQ(vput(*again, "lost", "later"), 0);
}

// Probes, and discover with its node list sent as a file.
TEST(Cluster, ProbesAndDiscover) {
  LocalCluster c(3);
  c.start(2);  // the third server runs but is not initialised
  struct Probe {
    int server, type, replyType;
    int32_t first;  // first VarUInt of the reply body (errors travel plus one), -1 for none
  };
  ConnectParams quick;
  quick.connectTimeoutMs = 1000;
  quick.handshakeTimeoutMs = 1000;
  const Probe probes[] = {
      {0, MSG_TYPE_STATUS, MSG_TYPE_OK, kNodeStatusServing},
      {2, MSG_TYPE_STATUS, MSG_TYPE_OK, kNodeStatusServing},
      {0, MSG_TYPE_PING, MSG_TYPE_OK, -1},
      {0, MSG_TYPE_CHECK_READY, MSG_TYPE_OK, -1},
      {2, MSG_TYPE_CHECK_READY, MSG_TYPE_FAILED, E_NOT_ACTIVE + 1},
      {0, MSG_TYPE_EOR, MSG_TYPE_EOR, -1},
      {0, MSG_TYPE_SH, MSG_TYPE_FAILED, E_ILL_FORMED_MSG + 1},  // an empty body
  };
  for (const Probe& p : probes) {
    SCOPED_TRACE(msgName(p.type));
    std::unique_ptr<ConnImplementation> conn;
    ASSERT_EQ(connect(c.address(p.server), quick, &conn), 0);
    Message reply;
    ASSERT_EQ(conn->send(p.type, {}), 0);
    ASSERT_EQ(conn->receive(&reply), 0);
    EXPECT_EQ(reply.type, p.replyType);
    const uint8_t* b = reply.body.data();
    int32_t first = -1;
    if (!reply.body.empty()) {
      EXPECT_NE(getVarInt32(b, b + reply.body.size(), &first), nullptr);
    }
    EXPECT_EQ(first, p.first);
  }
  // discover: the reply, then the node list announced and sent as a file.
  std::unique_ptr<ConnImplementation> conn;
  ASSERT_EQ(connect(c.address(1), quick, &conn), 0);
  Message reply, announced;
  DiscoverReply d;
  FileAnnouncement ann;
  ASSERT_EQ(conn->send(MSG_TYPE_DISCOVER, encodeBody(DiscoverRequest{-1})), 0);
  ASSERT_EQ(conn->receive(&reply), 0);
  ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &d), 0);
  EXPECT_TRUE(d.authoritative);
  EXPECT_EQ(d.nlVersion, 1);
  ASSERT_EQ(conn->receive(&announced), 0);
  ASSERT_EQ(announced.type, MSG_TYPE_CP_TO);
  const uint8_t* a = announced.body.data();
  ASSERT_EQ(ann.read(a, a + announced.body.size()), a + announced.body.size());
  ScopedTempDir tmp;
  ReceiveOptions options;
  options.target = tmp.file("nodes");
  options.expectedSize = ann.size;
  uint32_t crc = 0;
  bool local = false;
  ASSERT_EQ(receiveFile(*conn, options, &crc, &local), 0);
  EXPECT_EQ(readFileText(tmp.file("nodes")), readFileText(c.base(1) + "/qcr.nodes"));
}

TEST(Cluster, FollowersForwardChangesAndServeFiles) {
  LocalCluster c(3);
  c.start();
  const int leader = c.leaderIndex();
  const std::unique_ptr<Client> viaFollower = c.clientOf((leader + 1) % 3);
  const std::unique_ptr<Client> viaOther = c.clientOf((leader + 2) % 3);
  ASSERT_EQ(vput(*viaFollower, "v", "x"), 0);
  EXPECT_EQ(valueAt(*viaOther, "v"), "x");

  ScopedTempDir tmp;
  std::string content(3 * 1048576 + 17, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 4096);
  ASSERT_EQ(writeFile(tmp.file("big"), content, 0644, false), 0);
  ASSERT_EQ(fput(*viaFollower, "big.bin", tmp.file("big")), 0);
  RequestResult got;
  ASSERT_EQ(viaOther->FGET("big.bin", tmp.file("back"), -1, &got), 0);
  EXPECT_EQ(readFileText(tmp.file("back")), content);
  const int32_t version = got.state.files.at(got.fid).version;

  RequestResult list;
  ASSERT_EQ(viaOther->FLIST(&list), 0);
  std::vector<std::string> names;
  for (const FileListEntry& e : list.files) names.push_back(e.name);
  EXPECT_EQ(names, (std::vector<std::string>{"qcr.nodes", "qcr.disks", "big.bin"}));

  struct Case {
    const char* what;
    int got;
    int want;
  };
  const Case cases[] = {
      {"fdel -c wrong", fdel(*viaFollower, "big.bin", version + 1), E_VERSION_MISMATCH},
      {"vput -c 0 on existing", vput(*viaFollower, "v", "y", 0), E_VERSION_MISMATCH},
      {"fdel", fdel(*viaFollower, "big.bin", version), E_OK},
      {"fget deleted", viaOther->FGET("big.bin", tmp.file("c"), -1, &got), E_NOT_FOUND},
  };
  for (const Case& k : cases) EXPECT_EQ(k.got, k.want) << k.what;
}

// A server stopped at any point of writing its state file comes back from the
// intact copy and catches up.
TEST(Cluster, AStateWriteCutShortLeavesTheOtherCopy) {
  LocalCluster c(3);
  c.start();
  const std::unique_ptr<Client> cl = c.client();
  ASSERT_EQ(vput(*cl, "n", "0"), 0);
  const int victim = (c.leaderIndex() + 1) % 3;
  const int cuts[] = {0, 1, 21, 60, 1 << 20};
  int round = 0;
  for (int bytes : cuts) {
    SCOPED_TRACE(bytes);
    c.kill(victim);
    // Store 1 raises the epoch at start-up; store 2 is the next acceptance, or the
    // catch-up when the server missed a commit: it may end before it answers.
    c.startServer(victim, {"--crash-store", "2", "--crash-bytes", std::to_string(bytes)}, false);
    ASSERT_EQ(vput(*cl, "n", std::to_string(++round)), 0);
    const ChildStatus ended = c.waitExit(victim, 10);
    EXPECT_EQ(ended.exitCode, 9);
    c.startServer(victim);
    EXPECT_EQ(valueAt(*c.clientOf(victim), "n"), std::to_string(round));
  }
}

}  // namespace
}  // namespace qcr::test
