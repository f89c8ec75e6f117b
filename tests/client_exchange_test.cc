// The client's exchanges: replies, its cache and its server order read from byte
// strings; then the attempt loop against scripted servers on loopback: which
// server is asked, what a bad answer costs, and the bytes of the requests. Waits
// of the retry schedule run on a fake clock.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "basic/file_status.h"
#include "basic/files.h"
#include "qcr/client/client.h"
#include "qcr/client/local_node.h"
#include "qcr/client/reply.h"
#include "testing/string_transport.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/coding/crc.h"
#include "qcr/data/list_files.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/state_file.h"
#include "qcr/transfer/transfer_copy.h"
#include "testing/run_program.h"
#include "testing/fake_clock.h"
#include "testing/scripted_server.h"

namespace qcr {

using test::StringTransport;
using test::makeStringConnection;
namespace {

using test::Request;
using test::ScriptedServer;

using test::FakeClock;

CommittedState sampleState(int leader = 3) {
  CommittedState state;
  state.leaderId = leader;
  state.config.nodes = {{1, 0, 0, true}, {2, 1, 0, true}, {3, 2, 0, true}};
  state.values["x"] = {2, "value"};
  return state;
}

// Answers every request with a seq_commit of state (uid first for changes).
ScriptedServer::Script answerOk(const CommittedState& state = sampleState()) {
  return [state](Connection& conn, int) {
    const Request request = test::readRequest(conn);
    if (request.type == MSG_TYPE_VPUT) test::sendReply(conn, MSG_TYPE_UID, UidReply{{3, 1, 9}});
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT, SeqCommitReply{9, state});
  };
}

ScriptedServer::Script answerError(int error) {
  return [error](Connection& conn, int) {
    (void)test::readRequest(conn);
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT_ERROR, SeqCommitErrorReply{error, 9, sampleState()});
  };
}

// The names in dir, sorted.
std::vector<std::string> entriesIn(const std::string& dir) {
  std::vector<std::string> names;
  EXPECT_EQ(listDirectory(dir, &names), 0);
  std::sort(names.begin(), names.end());
  return names;
}

std::string frame(int type, const std::vector<uint8_t>& body) {
  uint8_t header[kRpcHeaderSize];
  encodeRpcHdr(RpcHeader{static_cast<int32_t>(body.size()), type}, header);
  return std::string(reinterpret_cast<char*>(header), sizeof header) +
         std::string(body.begin(), body.end());
}

uint32_t cksum(const std::string& s) {
  return cksumFinish(crcExtend(0, s.data(), s.size()), s.size());
}

class ClientExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override { newRun(); }

  // A new run of the tool: a new client over the same base directory, unsecured,
  // its retries on the fake clock.
  void newRun() {
    Session session;
    session.paths = deriveRepoPaths(dir_.path());
    for (const std::string& d : {session.paths.cachedDir, session.paths.committedDir}) {
      if (!isDirectory(d)) {
        ASSERT_EQ(makeDirectory(d, 0755), 0);
      }
    }
    client_ = std::make_unique<Client>(std::move(session), clock_);
    client_->security().setSecurityOff(1);
  }

  // Nodes 1..n on the given loopback ports; node `local` (0: none) is this machine.
  void useServers(const std::vector<int>& ports, int local = 0, bool update = false) {
    Session& s = client_->repoSession();
    for (size_t i = 0; i < ports.size(); ++i) {
      s.nodeList.push_back({static_cast<int>(i) + 1, 0, "n", "127.0.0.1", ports[i]});
    }
    s.serverPort = local > 0 ? ports[local - 1] : 1;
    ASSERT_EQ(settleLocalNode({ipv4Address(0x7F000001, 0).ip}, &s), 0);
    (void)client_->PaxosInit(update);
  }

  // Receives one reply from bytes.
  int receive(const std::string& bytes, QcrReply* replyP, RetryState* ctxP) {
    StringTransport* transport = nullptr;
    conn_ = makeStringConnection(&transport, bytes);
    return ReceiveQCRReply(*client_, *conn_, ctxP, replyP);
  }

  test::ScopedTempDir dir_;
  FakeClock clock_;
  std::unique_ptr<ConnImplementation> conn_;
  std::unique_ptr<Client> client_;
};

TEST_F(ClientExchangeTest, EachReplyTypeGivesItsResultAndEndsTheLoopOnlyOnAFinalAnswer) {
  const CommittedState state = sampleState(2);
  auto bytes = [](const auto& body) { return encodeBody(body); };
  const struct {
    int type;
    std::vector<uint8_t> body;
    int result;
    bool active, fatal;
  } cases[] = {
      {REPLY_TYPE_SEQ_COMMIT, bytes(SeqCommitReply{7, state}), 0, false, false},
      {REPLY_TYPE_SEQ_COMMIT_ERROR, bytes(SeqCommitErrorReply{808, 7, state}), 808, true, false},
      {REPLY_TYPE_SEQ_COMMIT_ERROR, bytes(SeqCommitErrorReply{819, 7, state}), 819, true, true},
      {REPLY_TYPE_SEQ_COMMIT_ERROR, bytes(SeqCommitErrorReply{805, 7, state}), 805, false, false},
      {REPLY_TYPE_SEQ_COMMIT_FLIST, bytes(SeqCommitFlistReply{7, state, {{16, "f"}}}), 0, false,
       false},
      {REPLY_TYPE_SEQ_COMMIT_FGET, bytes(SeqCommitFgetReply{7, state, 16, 3}), 0, true, false},
      {REPLY_TYPE_UID_FPUT, bytes(UidFputReply{{1, 2, 3}, true}), 0, true, false},
      {REPLY_TYPE_FAILED_NODE_VER, bytes(FailedNodeVerReply{809, 4}), 809, true, false},
      {REPLY_TYPE_SEQ_COMMIT_QUERY, bytes(SeqCommitQueryReply{7, state, true}), 0, true, false},
  };
  for (const auto& c : cases) {
    RetryState ctx("test", {1});
    QcrReply reply;
    EXPECT_EQ(receive(frame(c.type, c.body), &reply, &ctx), c.result) << c.type;
    EXPECT_EQ(reply.type, c.type);
    EXPECT_EQ(ctx.active, c.active) << c.type;
    EXPECT_EQ(ctx.fatal, c.fatal) << c.type;
    EXPECT_EQ(ctx.firstError, c.fatal ? 819 : 0) << c.type;
    EXPECT_FALSE(conn_->isBad());
  }
  RetryState ctx("test", {1});
  QcrReply reply;
  // The fields of fget and fput replies are used by the exchange tests; the uid is not.
  ASSERT_EQ(receive(frame(REPLY_TYPE_UID_FPUT, cases[6].body), &reply, &ctx), 0);
  EXPECT_EQ(reply.uid, (Uid{1, 2, 3}));
}

TEST_F(ClientExchangeTest, ABodyThatEndsEarlyOrRunsOnGives818AndABrokenConnection) {
  const std::vector<uint8_t> body =
      encodeBody(SeqCommitFlistReply{7, sampleState(1), {{16, "f"}, {17, "g"}}});
  for (size_t n = 0; n <= body.size(); ++n) {
    std::vector<uint8_t> changed(body.begin(), body.begin() + static_cast<long>(n));
    if (n == body.size()) changed.push_back(0);  // one byte too many
    RetryState ctx("test", {1});
    QcrReply reply;
    EXPECT_EQ(receive(frame(REPLY_TYPE_SEQ_COMMIT_FLIST, changed), &reply, &ctx), E_ILL_FORMED_MSG)
        << n;
    EXPECT_TRUE(conn_->isBad());
    EXPECT_TRUE(ctx.active);
  }
  EXPECT_EQ(client_->cache().cachedSeq, -1);
}

TEST_F(ClientExchangeTest, AReplyTypeThatNoRequestExpectsStopsTheProgram) {
  RetryState ctx("test", {1});
  QcrReply reply;
  EXPECT_DEATH((void)receive(frame(MSG_TYPE_OK, {1, 2}), &reply, &ctx), "unexpected reply type 0");
}

// A run starts from the cached file; a reply rewrites it only when it is newer and
// brings news (a leader or a cluster id other than the file's), and the first
// reported cluster id is what later connections of the run must reach.
TEST_F(ClientExchangeTest, TheCachedFileIsRewrittenOnlyForANewerStateWithNews) {
  const struct {
    int32_t seq;
    int leader;
    uint64_t clusterId;  // the replying connection's
    int32_t storedSeq;   // in the cached file afterwards
  } cases[] = {
      {6, 2, 99, 5},  // the cluster the cached file names, the same leader
      {6, 2, 0, 5},   // a connection that reports no cluster id
      {6, 3, 99, 6},  // a new leader
      {6, 2, 77, 6},  // another cluster
      {5, 3, 0, 5},   // not newer: ignored despite the new leader
  };
  for (const auto& c : cases) {
    client_->repoSession().clusterId = 99;
    ASSERT_EQ(client_->storeCachedState(5, sampleState(2)), 0);
    newRun();  // a new run
    ASSERT_EQ(client_->PaxosInit(false), 0);
    EXPECT_EQ(client_->repoSession().clusterId, 99u);
    client_->updateClientCache(c.seq, sampleState(c.leader), c.clusterId);
    PaxosLocalFile cached;
    ASSERT_EQ(cached.loadFromFile(client_->repoSession().paths.cachedPaxosFile), 0);
    EXPECT_EQ(cached.data.dblk.seq, c.storedSeq) << c.leader << " " << c.clusterId;
    EXPECT_EQ(cached.data.dblk.committed, sampleState(c.storedSeq == 6 ? c.leader : 2));
    EXPECT_EQ(client_->cache().cachedSeq, c.storedSeq);
    EXPECT_EQ(client_->cache().cachedLeader, c.storedSeq == 6 ? c.leader : 2);
    EXPECT_EQ(client_->expectedClusterId(), c.clusterId);
  }
}

TEST_F(ClientExchangeTest, ReadsAskTheLocalNodeFirstAndChangesTheLeader) {
  const NodeList nodes = {{4, 0, "d", "h", 1}, {3, 0, "c", "h", 1}, {1, 0, "a", "h", 1},
                          {2, 0, "b", "h", 1}};
  PaxosConfig config;
  config.nodes = {{1, 0, 0, true}, {2, 1, 0, true}, {3, 2, 0, false}, {4, 3, 0, true}};
  // Read: local 3 first, then the listening members, then the rest, lowest id first.
  EXPECT_EQ(orderServers(nodes, config, 3, 2, false), (std::vector<int>{3, 1, 2, 4}));
  // Change: the leader, then listening members by id; a silent leader counts as none.
  EXPECT_EQ(orderServers(nodes, config, 3, 2, true), (std::vector<int>{2, 1, 4, 3}));
  EXPECT_EQ(orderServers(nodes, config, 3, 3, true), (std::vector<int>{1, 2, 4, 3}));
  EXPECT_EQ(orderServers(nodes, PaxosConfig{}, -1, -1, false), (std::vector<int>{1, 2, 3, 4}));
  const struct {
    int ordering;
    bool update, leaderFirst;
  } modes[] = {{0, false, false}, {0, true, false}, {1, false, true},
               {1, true, true},   {2, false, false}, {2, true, true}};
  for (const auto& m : modes) EXPECT_EQ(asksLeaderFirst(m.ordering, m.update), m.leaderFirst);
}

TEST_F(ClientExchangeTest, AMalformedReplyCosts818AndItsConnectionAndTheNextServerAnswers) {
  client_->setConnectionCaching(true);
  // Written by the servers' threads, read here.
  std::atomic<bool> badClosed{false};
  std::atomic<int> goodAfterReply{-2};
  ScriptedServer bad([&badClosed](Connection& conn, int) {
    (void)test::readRequest(conn);
    test::sendRaw(conn, MSG_TYPE_SEQ_COMMIT, std::string("\x05", 1));
    badClosed = test::readRequest(conn).type == -1;  // no end-of-records: not kept
  });
  ScriptedServer good([&goodAfterReply](Connection& conn, int index) {
    answerOk()(conn, index);
    goodAfterReply = test::readRequest(conn).type;
    test::sendRaw(conn, MSG_TYPE_EOR, "");
  });
  useServers({bad.port(), good.port()});
  RequestResult result;
  EXPECT_EQ(client_->VGET(&result), 0);
  EXPECT_EQ(result.state, sampleState());
  EXPECT_EQ(bad.connections(), 1);
  EXPECT_EQ(good.connections(), 1);
  EXPECT_EQ(client_->connections().size(), 1u);  // only the good connection is kept
  EXPECT_TRUE(badClosed);
  EXPECT_EQ(goodAfterReply, MSG_TYPE_EOR);
}

TEST_F(ClientExchangeTest, AServerAnswerDecidesWhetherTheNextServerIsAsked) {
  const struct {
    int error;         // the first server's answer
    bool secondFails;  // the second answers 819 too
    int result;
    int askedSecond;
  } cases[] = {{E_NOT_ACTIVE, false, 0, 1},
               {E_VERSION_MISMATCH, false, E_VERSION_MISMATCH, 0},
               {E_INVALID_VERSION, false, E_INVALID_VERSION, 0},
               {E_NO_LEADER_CONTACT, false, 0, 1},
               {E_NO_LEADER_CONTACT, true, E_NO_LEADER_CONTACT, 1}};  // no second pass
  for (const auto& c : cases) {
    newRun();
    ScriptedServer first(answerError(c.error));
    ScriptedServer second(c.secondFails ? answerError(E_NO_LEADER_CONTACT) : answerOk());
    useServers({first.port(), second.port()}, 0, true);
    RequestResult result;
    EXPECT_EQ(client_->VPUT("x", "v", -1, -1, &result), c.result) << c.error;
    EXPECT_EQ(first.connections(), 1) << c.error;
    EXPECT_EQ(second.connections(), c.askedSecond) << c.error;
    EXPECT_TRUE(clock_.wakeUps().empty());
  }
}

TEST_F(ClientExchangeTest, NoServerReachableGives823OnTheScheduleWithin45Seconds) {
  useServers({test::closedPort(), test::closedPort(), test::closedPort()});
  RequestResult result;
  EXPECT_EQ(client_->VGET(&result), E_NO_QUORUM_NODE_REACHED);
  // The schedule's own test has the times; pass 6 over [31, 63] s has room for one
  // attempt before 45 s.
  ASSERT_EQ(clock_.wakeUps().size(), 16u);
  EXPECT_NEAR(clock_.wakeUps().back(), 31.0 + 32.0 / 3, 1e-9);
}

TEST_F(ClientExchangeTest, ReadsAskTheLocalNodeAndChangesTheLeaderUnlessOrderedOtherwise) {
  const struct {
    bool update;
    const char* ordering;
    int first;
  } cases[] = {{false, nullptr, 2}, {true, nullptr, 3}, {false, "1", 3}, {true, "0", 2}};
  for (const auto& c : cases) {
    newRun();
    PaxosFileData cached;
    cached.dblk.seq = 9;
    cached.dblk.committed = sampleState();
    ASSERT_EQ(storeWithReplacement(cached, {}, client_->repoSession().paths.cachedPaxosFile), 0);
    std::vector<int> asked;
    std::mutex mutex;
    auto record = [&](int id) {
      return [&, id](Connection& conn, int index) {
        std::lock_guard<std::mutex> lock(mutex);
        asked.push_back(id);
        answerOk()(conn, index);
      };
    };
    ScriptedServer s1(record(1)), s2(record(2)), s3(record(3));
    if (c.ordering != nullptr) setenv("QCR_SERVER_ORDERING", c.ordering, 1);
    useServers({s1.port(), s2.port(), s3.port()}, 2, c.update);
    unsetenv("QCR_SERVER_ORDERING");
    RequestResult result;
    EXPECT_EQ(c.update ? client_->VPUT("x", "v", -1, -1, &result) : client_->VGET(&result), 0);
    EXPECT_EQ(asked, std::vector<int>{c.first}) << c.update << c.ordering;
  }
}

TEST_F(ClientExchangeTest, ChangeRequestsCarryTheirFieldsAndFputItsFileOnRequest) {
  const std::string path = dir_.file("upload");
  ASSERT_EQ(writeFile(path, "content", 0644, false), 0);
  std::vector<Request> got;
  ScriptedServer server([&got](Connection& conn, int) {
    got.push_back(test::readRequest(conn));
    if (got.back().type != MSG_TYPE_FPUT) {
      test::sendReply(conn, MSG_TYPE_UID, UidReply{{3, 1, 9}});
    } else {
      test::sendReply(conn, MSG_TYPE_UID_FPUT, UidFputReply{{3, 1, 9}, true});
      got.push_back(test::readRequest(conn));
      got.push_back(test::readRequest(conn));
    }
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT, SeqCommitReply{9, sampleState()});
  });
  useServers({server.port()});
  RequestResult result;
  ASSERT_EQ(client_->VPUT("ab", "c", -1, -1, &result), 0);
  ASSERT_EQ(client_->VPUT("ab", "c", 4, 2, &result), 0);
  ASSERT_EQ(client_->VDEL("ab", 6, &result), 0);
  ASSERT_EQ(client_->FPUT("f", path, -1, -1, 0, &result), 0);
  // No server is asked for a file that is not there.
  EXPECT_EQ(client_->FPUT("f", dir_.file("missing"), -1, -1, 0, &result), ENOENT);
  using std::string_literals::operator""s;
  const std::vector<std::pair<int, std::string>> expected = {
      {MSG_TYPE_VPUT, "\0\0\0ab\0c\0\0\0"s},  // zero uid, name, value, no versions
      {MSG_TYPE_VPUT, "\0\0\0ab\0c\0\x05\x03"s},
      {MSG_TYPE_VDEL, "\0\0\0ab\0\x07"s},
      {MSG_TYPE_FPUT, "\0\0\0f\0\x08\0\0\0"s},  // size 7 travels as 8
      {MSG_TYPE_FDATA, "content"},
      {MSG_TYPE_FCRC, "\x5e\x1e\xc6\x2e"s}};  // what cksum prints for it
  ASSERT_EQ(got.size(), expected.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].type, expected[i].first) << i;
    EXPECT_EQ(got[i].body, expected[i].second) << i;
  }
}

// Serves fget with content; the first `corrupt` connections send a wrong checksum.
ScriptedServer::Script serveFile(const std::string& content, int corrupt, int* typeP) {
  return [=](Connection& conn, int index) {
    *typeP = test::readRequest(conn).type;
    CommittedState state = sampleState();
    state.files[16] = {5, {3, 1, 9}, cksum(content)};
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT_FGET,
                    SeqCommitFgetReply{9, state, 16, static_cast<int64_t>(content.size())});
    test::sendFileContent(conn, content, index < corrupt ? 1 : 0);
  };
}

TEST_F(ClientExchangeTest, FgetWithABadChecksumLeavesNothingAndAsksTheNextServer) {
  int type1 = 0, type2 = 0;
  ScriptedServer bad(serveFile("from one", 1000, &type1));
  ScriptedServer good(serveFile("from two", 0, &type2));
  useServers({bad.port(), good.port()});
  RequestResult result;
  ASSERT_EQ(client_->FGET("_secret", dir_.file("got"), -1, &result), 0);
  EXPECT_EQ(test::readFileText(dir_.file("got")), "from two");
  EXPECT_EQ(result.fid, 16);
  EXPECT_EQ(type1, MSG_TYPE_FGET_PRIV);
  // Failing everywhere: every attempt of the schedule, and still nothing left behind.
  newRun();
  useServers({bad.port()});
  EXPECT_EQ(client_->FGET("plain", dir_.file("other"), -1, &result), E_MAX_RETRIES);
  EXPECT_EQ(type1, MSG_TYPE_FGET);
  EXPECT_EQ(bad.connections(), 1 + 6);  // at 0, 1, 3, 7, 15 and 31 s
  EXPECT_EQ(entriesIn(dir_.path()), (std::vector<std::string>{"cached", "committed", "got"}));
}

// A target that is not a regular file is refused before any server is asked, and
// stays what it was: a device or fifo is never replaced by the file.
TEST_F(ClientExchangeTest, FgetRefusesTargetsThatAreNoRegularFiles) {
  int type = 0;
  ScriptedServer server(serveFile("content", 0, &type));
  useServers({server.port()});
  ASSERT_EQ(makeDirectory(dir_.file("dir"), 0755), 0);
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
  ASSERT_EQ(writeFile(dir_.file("plain"), "old", 0644, false), 0);
  ASSERT_EQ(makeSymlink(dir_.file("plain"), dir_.file("link")), 0);
  const struct {
    const char* target;
    int rc;
  } cases[] = {{"dir", EISDIR}, {"fifo", EINVAL}, {"link", EINVAL}};
  for (const auto& c : cases) {
    RequestResult result;
    EXPECT_EQ(client_->FGET("f", dir_.file(c.target), -1, &result), c.rc) << c.target;
  }
  EXPECT_EQ(server.connections(), 0);
  EXPECT_TRUE(isDirectory(dir_.file("dir")));
  FileStatus fifo;
  ASSERT_EQ(linkStatus(dir_.file("fifo"), &fifo), 0);
  EXPECT_FALSE(fifo.regular);
  ASSERT_EQ(linkStatus(dir_.file("link"), &fifo), 0);
  EXPECT_TRUE(fifo.symlink);
  // A regular file is replaced.
  RequestResult result;
  ASSERT_EQ(client_->FGET("f", dir_.file("plain"), -1, &result), 0);
  EXPECT_EQ(test::readFileText(dir_.file("plain")), "content");
}

TEST_F(ClientExchangeTest, ANewerNodeListIsPulledOnceAndWrittenAsTheLocalList) {
  int port = 0;
  std::string nodesText;
  CommittedState state = sampleState();
  std::vector<int> requests;
  ScriptedServer server([&](Connection& conn, int) {
    requests.push_back(test::readRequest(conn).type);
    if (requests.back() == MSG_TYPE_VGET) {
      test::sendReply(conn, MSG_TYPE_SEQ_COMMIT, SeqCommitReply{12, state});
      return;
    }
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT_FGET,
                    SeqCommitFgetReply{12, state, 1, static_cast<int64_t>(nodesText.size())});
    test::sendFileContent(conn, nodesText);
  });
  port = server.port();
  nodesText = "1,0,127.0.0.1," + std::to_string(port) + ",n\n7,0,127.0.0.1,1,seven\n";
  state.files[kNodesFileObjId] = {2, {3, 1, 8}, cksum(nodesText)};
  useServers({port});
  RequestResult result;
  ASSERT_EQ(client_->VGET(&result), 0);
  EXPECT_EQ(requests, (std::vector<int>{MSG_TYPE_VGET, MSG_TYPE_FGET}));
  EXPECT_EQ(client_->repoSession().nodeList.size(), 2u);
  NodeList local;
  ASSERT_EQ(readNodeList(client_->repoSession().paths.nodesFile, &local), 0);
  EXPECT_EQ(local, client_->repoSession().nodeList);
  char crcHex[9];
  snprintf(crcHex, sizeof crcHex, "%x", cksum(nodesText));
  EXPECT_TRUE(fileExists(client_->repoSession().paths.committedDir + "/qcr%2Enodes.1.2." + crcHex +
                         ".030108"));
  client_->cache() = ClientCache{};  // a later run: the committed file is there
  client_->cache().serverIds = {1};
  ASSERT_EQ(client_->VGET(&result), 0);
  EXPECT_EQ(requests.size(), 3u);
}

// Answers discover with seq, authoritative and the node list text.
ScriptedServer::Script answerDiscover(int32_t seq, bool authoritative, const std::string* nodes,
                                      std::string* bodyP) {
  return [=](Connection& conn, int) {
    *bodyP = test::readRequest(conn).body;
    test::sendReply(conn, MSG_TYPE_REPLY_DISCOVER,
                    DiscoverReply{seq, sampleState(), authoritative, 3});
    FileAnnouncement announcement;
    announcement.name = "qcr.nodes";
    announcement.size = static_cast<int64_t>(nodes->size());
    test::sendReply(conn, MSG_TYPE_CP_TO, announcement);
    test::sendFileContent(conn, *nodes);
  };
}

TEST_F(ClientExchangeTest, DiscoverFollowsTheNodeListUntilAnAnswerIsCurrent) {
  std::string stale, current, bodyA, bodyB;
  ScriptedServer a(answerDiscover(4, false, &stale, &bodyA));
  ScriptedServer b(answerDiscover(6, true, &current, &bodyB));
  const std::string nodeB = "2,0,127.0.0.1," + std::to_string(b.port()) + ",b\n";
  stale = nodeB;
  current = "1,0,127.0.0.1," + std::to_string(a.port()) + ",a\n" + nodeB;
  useServers({a.port()});
  ASSERT_EQ(client_->DISCOVER(), 0);
  EXPECT_EQ(a.connections(), 1);
  EXPECT_EQ(b.connections(), 1);
  EXPECT_EQ(bodyA, std::string(1, '\0'));  // no node list version known yet
  EXPECT_EQ(test::readFileText(client_->repoSession().paths.nodesFile), current);
  EXPECT_EQ(client_->repoSession().nodeList.size(), 2u);
  EXPECT_EQ(client_->repoSession().localNodeId, -1);
  EXPECT_EQ(client_->cache().cachedSeq, 6);
}

// Records the type of every request a server gets before answering like answerOk.
ScriptedServer::Script recordingOk(const CommittedState& state, std::vector<int>* typesP,
                                   std::mutex* mutexP) {
  return [=](Connection& conn, int) {
    const Request request = test::readRequest(conn);
    {
      std::lock_guard<std::mutex> lock(*mutexP);
      typesP->push_back(request.type);
    }
    if (request.type == MSG_TYPE_VPUT) test::sendReply(conn, MSG_TYPE_UID, UidReply{{3, 1, 9}});
    test::sendReply(conn, MSG_TYPE_SEQ_COMMIT, SeqCommitReply{9, state});
  };
}

// Two clients in one process share nothing: each asks its own servers, learns its
// own cluster (and refuses the other's), and keeps its own cached state in its
// own base directory.
TEST_F(ClientExchangeTest, TwoClientsSideBySideKeepTheirOwnServersCachesAndClusters) {
  std::mutex mutex;
  std::vector<int> toA, toB;
  ScriptedServer a(recordingOk(sampleState(1), &toA, &mutex), 11);
  ScriptedServer b(recordingOk(sampleState(2), &toB, &mutex), 22);
  useServers({a.port(), b.port()});  // this client: nodes a and b, a first

  test::ScopedTempDir otherDir;
  Session session;
  session.paths = deriveRepoPaths(otherDir.path());
  ASSERT_EQ(makeDirectory(session.paths.cachedDir, 0755), 0);
  session.nodeList = {{1, 0, "b", "127.0.0.1", b.port()}};
  ASSERT_EQ(settleLocalNode({}, &session), 0);
  FakeClock otherClock;
  Client other(std::move(session), otherClock);
  other.security().setSecurityOff(1);
  ASSERT_NE(other.PaxosInit(true), 0);  // no cached state yet

  RequestResult mine, theirs;
  ASSERT_EQ(client_->VGET(&mine), 0);
  ASSERT_EQ(other.VPUT("x", "v", -1, -1, &theirs), 0);
  ASSERT_EQ(client_->VGET(&mine), 0);
  EXPECT_EQ(toA, (std::vector<int>{MSG_TYPE_VGET, MSG_TYPE_VGET}));
  EXPECT_EQ(toB, (std::vector<int>{MSG_TYPE_VPUT}));
  EXPECT_EQ(client_->expectedClusterId(), 11u);
  EXPECT_EQ(other.expectedClusterId(), 22u);
  EXPECT_EQ(client_->cache().cachedLeader, 1);
  EXPECT_EQ(other.cache().cachedLeader, 2);
  for (const auto& [base, leader] : {std::pair{dir_.path(), 1}, {otherDir.path(), 2}}) {
    PaxosLocalFile cached;
    ASSERT_EQ(cached.loadFromFile(base + "/cached/qcr.paxos"), 0) << base;
    EXPECT_EQ(cached.data.dblk.committed.leaderId, leader) << base;
  }

  // Server b belongs to the other client's cluster: this client's first send to
  // it fails, and no later pass is made; the other client still reaches it.
  client_->cache().serverIds = {2};
  EXPECT_EQ(client_->VGET(&mine), E_CLUSTER_MISMATCH);
  ASSERT_EQ(other.VGET(&theirs), 0);
  EXPECT_EQ(theirs.state.leaderId, 2);
  EXPECT_TRUE(clock_.wakeUps().empty());
  EXPECT_TRUE(otherClock.wakeUps().empty());
}

// A client without files keeps its cache in memory only: it orders changes by the
// leader it learnt, writes nothing and never pulls the committed node list.
TEST_F(ClientExchangeTest, AClientWithoutFilesLearnsTheLeaderInMemory) {
  CommittedState state = sampleState(3);
  state.files[kNodesFileObjId] = {2, {3, 1, 8}, 0x1234};
  std::mutex mutex;
  std::vector<int> asked[3];
  ScriptedServer s1(recordingOk(state, &asked[0], &mutex));
  ScriptedServer s2(recordingOk(state, &asked[1], &mutex));
  ScriptedServer s3(recordingOk(state, &asked[2], &mutex));
  Session session;
  ASSERT_EQ(serversSession({{1, 0, "a", "127.0.0.1", s1.port()},
                            {2, 0, "b", "127.0.0.1", s2.port()},
                            {3, 0, "c", "127.0.0.1", s3.port()}},
                           &session),
            0);
  Client client(std::move(session), clock_);
  client.security().setSecurityOff(1);
  EXPECT_FALSE(client.keepsFiles());
  RequestResult result;
  ASSERT_EQ(client.VGET(&result), 0);  // the node list's order: server 1
  ASSERT_EQ(client.PaxosInit(true), 0);
  EXPECT_EQ(client.cache().serverIds, (std::vector<int>{3, 1, 2}));
  ASSERT_EQ(client.VPUT("x", "v", -1, -1, &result), 0);
  EXPECT_EQ(asked[0], std::vector<int>{MSG_TYPE_VGET});  // no fget of qcr.nodes
  EXPECT_TRUE(asked[1].empty());
  EXPECT_EQ(asked[2], std::vector<int>{MSG_TYPE_VPUT});
  EXPECT_EQ(client.cache().cachedSeq, 9);
  EXPECT_EQ(client.DISCOVER(), EINVAL);
}

// A status request to a server that took the hello and then keeps silent ends
// when a hello would have, not after the session's long wait for answers.
TEST_F(ClientExchangeTest, AStatusRequestWaitsForItsAnswerNoLongerThanAHello) {
  std::atomic<int> asked{-1};
  ScriptedServer silent([&](Connection& conn, int) {
    asked = test::readRequest(conn).type;
    (void)test::readRequest(conn);  // until the client gives up and closes
  });
  Session session;
  ASSERT_EQ(serversSession({{1, 0, "a", "127.0.0.1", silent.port()}}, &session), 0);
  session.handshakeTimeoutMs = 300;  // waitMs stays -1: two minutes per wait
  Client client(std::move(session), clock_);
  client.security().setSecurityOff(1);
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  EXPECT_EQ(client.STATUS(1, &status), kErrTimedOut);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(asked, MSG_TYPE_STATUS);
}

}  // namespace
}  // namespace qcr
