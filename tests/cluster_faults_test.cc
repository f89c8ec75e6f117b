// End-to-end tests of qcrd against faults and hostile clients: a leader whose
// disk is full, an upload that trickles in, list files and file names that no
// server may take, and state it cannot start from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "basic/files.h"
#include "qcr/client/client.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/peer_link.h"
#include "testing/cluster_fixture.h"

namespace qcr::test {
namespace {

// A connection of its own to server i, as a client opens it.
std::unique_ptr<ConnImplementation> rawConnection(LocalCluster& c, int i) {
  ConnectParams params;
  params.connectTimeoutMs = 2000;
  params.handshakeTimeoutMs = 2000;
  params.waitMs = 12000;
  std::unique_ptr<ConnImplementation> conn;
  EXPECT_EQ(connect(c.address(i), params, &conn), 0);
  return conn;
}

// The error of a seq_commit_error reply, -1 for any other reply.
int replyError(const Message& reply) {
  SeqCommitErrorReply e;
  if (reply.type != MSG_TYPE_SEQ_COMMIT_ERROR ||
      decodeBody(reply.body.data(), reply.body.size(), &e) != 0) {
    return -1;
  }
  return e.error;
}

// The leader's disk fills up: its state cannot be written, so it stands down and
// answers 808, and another server takes over; the client's change goes through
// instead of failing with 809 for as long as the disk stays full.
TEST(ClusterFaults, ALeaderWithAFullDiskMakesWayForAnother) {
  LocalCluster c(3);
  c.start();
  for (int i = 0; i < 3; ++i) {
    c.kill(i);
    c.startServer(i, {"--full-disk-flag", c.base(i) + "/disk-full"});
  }
  const std::unique_ptr<Client> cl = c.client(30);
  ASSERT_EQ(vput(*cl, "k", "before"), 0);
  const int leader = c.leaderIndex();
  ASSERT_EQ(writeFile(c.base(leader) + "/disk-full", "", 0644, false), 0);
  EXPECT_EQ(vput(*cl, "k", "after"), 0);
  RequestResult r;
  ASSERT_EQ(c.clientOf((leader + 1) % 3)->VGET(&r), 0);
  EXPECT_NE(r.state.leaderId - 1, leader);
  EXPECT_EQ(r.state.values["k"].text, "after");
}

// A change that a server forwards long after it opened the connection for it (the
// forwarding server was held up between the two) is as old as that connection:
// past the patience it is not proposed, so it cannot land after the changes its
// client made elsewhere meanwhile.
TEST(ClusterFaults, AForwardedChangeHeldUpOnTheWayIsDropped) {
  LocalCluster c(3);
  c.start();
  for (int i = 0; i < 3; ++i) {
    c.kill(i);
    c.startServer(i, {"--change-patience", "1"});
  }
  const std::unique_ptr<Client> cl = c.client(30);
  ASSERT_EQ(vput(*cl, "k", "before"), 0);
  const int leader = c.leaderIndex();
  ConnectParams params;
  params.connectTimeoutMs = params.handshakeTimeoutMs = params.waitMs = 12000;
  params.helloFlags = kPeerHelloFlag;
  params.clusterId = c.clusterId();
  std::unique_ptr<ConnImplementation> up;
  ASSERT_EQ(connect(c.address(leader), params, &up), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  VputRequest late;
  late.name = "k";
  late.value = "late";
  ASSERT_EQ(up->send(MSG_TYPE_VPUT, encodeBody(late)), 0);
  Message reply;
  ASSERT_EQ(up->receive(&reply), 0);
  if (reply.type == MSG_TYPE_UID) {
    ASSERT_EQ(up->receive(&reply), 0);
  }
  EXPECT_EQ(replyError(reply), ETIMEDOUT);
  RequestResult r;
  ASSERT_EQ(cl->VGET(&r), 0);
  EXPECT_EQ(r.state.values["k"].text, "before");
}

// An upload that arrives in pieces does not hold up other changes: a vput
// completes while the upload still waits for its last bytes, and the upload then
// commits as well.
TEST(ClusterFaults, ASlowUploadDelaysNoOtherChange) {
  LocalCluster c(3);
  c.start();
  const int leader = c.leaderIndex();
  const std::string content(200000, 'u');
  const std::unique_ptr<ConnImplementation> up = rawConnection(c, leader);
  FputRequest req;
  req.name = "slow";
  req.fileSize = static_cast<int64_t>(content.size());
  Message reply;
  ASSERT_EQ(up->send(MSG_TYPE_FPUT, encodeBody(req)), 0);
  ASSERT_EQ(up->receive(&reply), 0);
  ASSERT_EQ(reply.type, MSG_TYPE_UID_FPUT);
  const size_t half = content.size() / 2;
  ASSERT_EQ(up->send(MSG_TYPE_FDATA, content.data(), static_cast<int>(half)), 0);

  // Sent while the upload waits: with the upload holding the change lock, this
  // vput would wait until the server gave the upload up.
  ASSERT_EQ(vput(*c.clientOf(leader, 8), "quick", "done"), 0);

  const int rest = static_cast<int>(content.size() - half);
  ASSERT_EQ(up->send(MSG_TYPE_FDATA, content.data() + half, rest), 0);
  uint8_t crc[4];
  putU32(crc, cksumFinish(crcExtend(0, content.data(), content.size()), content.size()));
  ASSERT_EQ(up->send(MSG_TYPE_FCRC, crc, sizeof crc), 0);
  ASSERT_EQ(up->receive(&reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_SEQ_COMMIT) << replyError(reply);
  ScopedTempDir tmp;
  EXPECT_TRUE(fileAt(*c.clientOf((leader + 1) % 3), tmp, "slow") == content);
}

// qcr.nodes and qcr.disks are read by every server: content that does not parse
// is refused with 22 before it is proposed, and the committed lists stay.
TEST(ClusterFaults, JunkListFilesAreRefusedAndTheCommittedListsStay) {
  LocalCluster c(3);
  c.start();
  ScopedTempDir tmp;
  const std::string nodes = fileAt(*c.clientOf(0), tmp, "qcr.nodes");
  const std::string disks = fileAt(*c.clientOf(0), tmp, "qcr.disks");
  ASSERT_EQ(nodes.substr(0, 2), "1,");
  const std::unique_ptr<Client> cl = c.client();
  ASSERT_EQ(writeFile(tmp.file("junk"), "JUNK\n", 0644, false), 0);
  ASSERT_EQ(writeFile(tmp.file("twice"), nodes + nodes, 0644, false), 0);
  RequestResult r;
  EXPECT_EQ(cl->FPUT("qcr.nodes", tmp.file("junk"), -1, -1, 0, &r), EINVAL);
  EXPECT_EQ(cl->FPUT("qcr.nodes", tmp.file("twice"), -1, -1, 0, &r), EINVAL);
  EXPECT_EQ(cl->FPUT("qcr.disks", tmp.file("junk"), -1, -1, 0, &r), EINVAL);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(fileAt(*c.clientOf(i), tmp, "qcr.nodes"), nodes) << i;
    EXPECT_EQ(fileAt(*c.clientOf(i), tmp, "qcr.disks"), disks) << i;
  }
  // The same junk under another name is just a file.
  EXPECT_EQ(cl->FPUT("notes", tmp.file("junk"), -1, -1, 0, &r), 0);
}

// File names sent by hand that no server takes get a final 22 at once, on the
// leader and on a follower alike, before any upload; the connection stays usable.
TEST(ClusterFaults, FileNamesNoServerTakesGetAFinalError) {
  LocalCluster c(3);
  c.start();
  const int leader = c.leaderIndex();
  for (const int server : {leader, (leader + 1) % 3}) {
    const std::unique_ptr<ConnImplementation> conn = rawConnection(c, server);
    FputRequest put;
    put.fileSize = 4;
    DeleteRequest del;
    for (const std::string& name : {std::string("a/b"), std::string("../../x"), std::string("a\nb"),
                                    std::string(), std::string(200, 'n')}) {
      SCOPED_TRACE(server);
      Message reply;
      put.name = name;
      ASSERT_EQ(conn->send(MSG_TYPE_FPUT, encodeBody(put)), 0);
      ASSERT_EQ(conn->receive(&reply), 0);
      EXPECT_EQ(replyError(reply), EINVAL) << name;
      del.name = name;
      ASSERT_EQ(conn->send(MSG_TYPE_FDEL, encodeBody(del)), 0);
      ASSERT_EQ(conn->receive(&reply), 0);
      EXPECT_EQ(replyError(reply), EINVAL) << name;
    }
  }
  std::vector<std::string> stored;
  ASSERT_EQ(listDirectory(c.base(leader) + "/committed", &stored), 0);
  EXPECT_EQ(stored.size(), 2u);  // qcr.nodes and qcr.disks
}

// qcrd names what it cannot start from, and says loudly when a base directory
// with repository files has no state file (an empty one is the quiet, usual case).
TEST(ClusterFaults, StartUpProblemsAreReportedInWords) {
  ScopedTempDir dir;
  const std::string base = dir.file("base");
  ASSERT_EQ(makeDirectory(base, 0755), 0);
  ASSERT_EQ(writeFile(base + "/qcr.paxos.1", "not a state file", 0660, false), 0);
  const ProgramResult r =
      runProgram({binPath("qcrd"), "-P", "1", "--base", base}, cleanEnvironment(), 20000);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "qcrd: cannot start on port 1: cannot start from the state in " + base + ": " +
                       base + "/qcr.paxos.1 is corrupt: its length, magic number, checksum or "
                       "content do not check; " + base + "/qcr.paxos.2 does not exist\n");

  LocalCluster c(2);
  ASSERT_EQ(makeDirectory(c.base(0), 0755), 0);
  ASSERT_EQ(writeFile(c.base(0) + "/qcr.nodes", c.nodeListText(1), 0644, false), 0);
  c.startServer(0);
  c.startServer(1);  // an empty base directory
  const std::string loud = "qcrd: no state file in " + c.base(0) +
                           " (qcr.paxos.1, qcr.paxos.2), although it holds repository files: "
                           "waiting for init\n";
  // Each log holds the start-up line; only node 1's says more, before it. The
  // line follows the start of listening: wait for it (bounded).
  auto logOf = [&c](int i) {
    std::string log;
    for (int waited = 0; waited < 100; ++waited) {
      log = readFileText(c.base(i) + ".log");
      if (log.find(": listening on port") != std::string::npos) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return log;
  };
  const std::string log0 = logOf(0);
  EXPECT_EQ(log0.rfind(loud, 0), 0u) << log0;
  EXPECT_NE(log0.find(": listening on port", loud.size()), std::string::npos) << log0;
  EXPECT_NE(readFileText(c.base(0) + "/qcrd.trace").find(loud), std::string::npos);
  const std::string log1 = logOf(1);
  EXPECT_EQ(log1.rfind("qcrd ", 0), 0u) << log1;
  EXPECT_NE(log1.find(": listening on port"), std::string::npos) << log1;
  EXPECT_EQ(std::count(log1.begin(), log1.end(), '\n'), 1) << log1;
}

}  // namespace
}  // namespace qcr::test
