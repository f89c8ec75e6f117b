// The client's reading of replies, its cache and its server order, without a
// network: replies come from a byte-string connection.
#include <gtest/gtest.h>

#include "basic/files.h"
#include "qcr/client/client_cache.h"
#include "qcr/client/reply.h"
#include "qcr/comm/fake_transport.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/result.h"
#include "qcr/data/request_bodies.h"
#include "qcr/data/session.h"
#include "qcr/data/state_file.h"
#include "tests/run_program.h"

namespace qcr {
namespace {

std::string frame(int type, const std::vector<uint8_t>& body) {
  uint8_t header[kRpcHeaderSize];
  encodeRpcHdr(RpcHeader{static_cast<int32_t>(body.size()), type}, header);
  return std::string(reinterpret_cast<char*>(header), sizeof header) +
         std::string(body.begin(), body.end());
}

CommittedState stateWithLeader(int leader) {
  CommittedState state;
  state.leaderId = leader;
  state.config.nodes = {{1, 0, 0, true}, {2, 1, 0, true}, {3, 2, 0, false}};
  state.values["v"] = {4, "text"};
  return state;
}

class ClientReplyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    session() = Session{};
    session().paths = deriveRepoPaths(dir_.path());
    clientCache() = ClientCache{};
  }

  // Receives one reply from bytes.
  int receive(const std::string& bytes, QcrReply* replyP, RetryState* ctxP) {
    StringTransport* transport = nullptr;
    conn_ = makeStringConnection(&transport, bytes);
    return ReceiveQCRReply(*conn_, ctxP, replyP);
  }

  test::ScopedTempDir dir_;
  std::unique_ptr<ConnImplementation> conn_;
};

TEST_F(ClientReplyTest, EachReplyTypeGivesItsResultAndEndsTheLoopOnlyOnAFinalAnswer) {
  const CommittedState state = stateWithLeader(2);
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

TEST_F(ClientReplyTest, ABodyThatEndsEarlyOrRunsOnGives818AndABrokenConnection) {
  const std::vector<uint8_t> body =
      encodeBody(SeqCommitFlistReply{7, stateWithLeader(1), {{16, "f"}, {17, "g"}}});
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
  EXPECT_EQ(clientCache().cachedSeq, -1);
}

TEST_F(ClientReplyTest, AReplyTypeThatNoRequestExpectsStopsTheProgram) {
  RetryState ctx("test", {1});
  QcrReply reply;
  EXPECT_DEATH((void)receive(frame(MSG_TYPE_OK, {1, 2}), &reply, &ctx), "unexpected reply type 0");
}

// A run starts from the cached file; a reply rewrites it only when it is newer and
// brings news (a leader or a cluster id other than the file's), and the first
// reported cluster id is what later connections of the run must reach.
TEST_F(ClientReplyTest, TheCachedFileIsRewrittenOnlyForANewerStateWithNews) {
  ASSERT_EQ(makeDirectory(session().paths.cachedDir, 0755), 0);
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
    session().clusterId = 99;
    ASSERT_EQ(storeCachedState(5, stateWithLeader(2)), 0);
    SetUp();  // a new run
    ASSERT_EQ(PaxosInit(false), 0);
    EXPECT_EQ(session().clusterId, 99u);
    updateClientCache(c.seq, stateWithLeader(c.leader), c.clusterId);
    PaxosLocalFile cached;
    ASSERT_EQ(cached.loadFromFile(session().paths.cachedPaxosFile), 0);
    EXPECT_EQ(cached.data.dblk.seq, c.storedSeq) << c.leader << " " << c.clusterId;
    EXPECT_EQ(cached.data.dblk.committed, stateWithLeader(c.storedSeq == 6 ? c.leader : 2));
    EXPECT_EQ(clientCache().cachedSeq, c.storedSeq);
    EXPECT_EQ(clientCache().cachedLeader, c.storedSeq == 6 ? c.leader : 2);
    EXPECT_EQ(expectedClusterId(), c.clusterId);
    setExpectedClusterId(0);
  }
}

TEST_F(ClientReplyTest, ReadsAskTheLocalNodeFirstAndChangesTheLeader) {
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

}  // namespace
}  // namespace qcr
