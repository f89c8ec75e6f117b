// The acceptor's rules and the state file copies.
#include "qcr/server/replica.h"

#include <gtest/gtest.h>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/coding/result.h"
#include "qcr/data/state_file.h"

namespace qcr {
namespace {

constexpr int64_t kNow = 1000000;

class ReplicaTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(makeTempDir("qcrd-replica-", &dir_), 0);
    store_ = std::make_unique<StateStore>(dir_ + "/qcr.paxos", 1);
    replica_ = std::make_unique<Replica>(store_.get(), 1);
    NodeList nodes = {NodeEntry{1, 0, "a", "127.0.0.1", 1}, NodeEntry{2, 0, "b", "127.0.0.1", 2},
                      NodeEntry{3, 0, "c", "127.0.0.1", 3}};
    ASSERT_EQ(replica_->init(makeInitRequest(77, nodes, {}, 1)), 0);
  }
  void TearDown() override { (void)removeTree(dir_); }

  PeerHeader from(int32_t node, int32_t seq, int64_t ageMs = 0) { return {node, kNow - ageMs, seq}; }
  // Accepts and commits u as the proposer does once a majority accepted it.
  int commit(int32_t node, const Ballot& ballot, const ProposedUpdate& u) {
    const int32_t seq = replica_->seq();
    if (replica_->accept({from(node, seq), ballot, u}, kNow).result != kPeerOk) return -1;
    return replica_->commitAccepted(seq, ballot);
  }
  ProposedUpdate put(const std::string& name, int32_t seq) {
    ProposedUpdate u;
    u.kind = UpdateKind::ValuePut;
    u.name = name;
    u.value = "x";
    u.uid = Uid{2, 1, seq};
    return u;
  }

  std::string dir_;
  std::unique_ptr<StateStore> store_;
  std::unique_ptr<Replica> replica_;
};

TEST_F(ReplicaTest, PromisesAndAcceptancesFollowTheBallots) {
  const Ballot b5{5, 2}, b4{4, 3}, b6{6, 3};
  EXPECT_EQ(replica_->prepare({from(2, 0), b5}, kNow).result, kPeerOk);
  EXPECT_EQ(replica_->prepare({from(2, 0), b5}, kNow).result, kPeerOk);  // asked again
  EXPECT_EQ(replica_->prepare({from(3, 0), b4}, kNow).result, kPeerRejected);
  EXPECT_EQ(replica_->accept({from(3, 0), b4, put("a", 1)}, kNow).result, kPeerRejected);
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("a", 1)}, kNow).result, kPeerOk);
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("a", 1)}, kNow).result, kPeerOk);  // again
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("other", 2)}, kNow).result, kPeerRejected);
  // A later prepare learns what was accepted.
  const AcceptorReply r = replica_->prepare({from(3, 0), b6}, kNow);
  EXPECT_EQ(r.result, kPeerOk);
  EXPECT_EQ(r.bal, b5);
  EXPECT_EQ(r.inp, put("a", 1));
  // Position and age come first.
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{9, 3}}, kNow).result, kPeerBehind);
  EXPECT_EQ(replica_->prepare({from(3, 0, kMaxMessageAgeMs + 1), Ballot{9, 3}}, kNow).result,
            kPeerStale);
  // A chosen update commits even past a higher promise, but only the acceptance
  // this replica holds, and only once.
  EXPECT_EQ(replica_->commitAccepted(0, b6), kPeerRejected);
  EXPECT_EQ(replica_->commitAccepted(0, b5), 0);
  EXPECT_EQ(replica_->view().committed.values.count("a"), 1u);
  EXPECT_EQ(replica_->commitAccepted(0, b5), kPeerRejected);
}

TEST_F(ReplicaTest, ACommitNoticeAppliesTheAcceptedUpdateOrAsksForTheState) {
  const Ballot b{1, 2};
  ASSERT_EQ(replica_->accept({from(2, 0), b, put("a", 1)}, kNow).result, kPeerOk);
  SyncMsg notice{from(2, 1), b, false, {}};
  EXPECT_EQ(replica_->sync(notice, kNow).result, kPeerOk);
  EXPECT_EQ(replica_->seq(), 1);
  EXPECT_EQ(replica_->view().committed.values.at("a").text, "x");

  // Two commits further on, without the state: behind; with it: caught up.
  SyncMsg later{from(2, 3), b, false, {}};
  EXPECT_EQ(replica_->sync(later, kNow).result, kPeerBehind);
  later.hasImage = true;
  later.image.seq = 3;
  later.image.state = replica_->view().committed;
  later.image.state.values["b"] = {1, "y"};
  EXPECT_EQ(replica_->sync(later, kNow).result, kPeerOk);
  EXPECT_EQ(replica_->seq(), 3);
  // And to a stale sender it reports itself ahead, with its state.
  const AcceptorReply ahead = replica_->sync({from(3, 2), b, false, {}}, kNow);
  EXPECT_EQ(ahead.result, kPeerAhead);
  EXPECT_TRUE(ahead.hasImage);
}

TEST_F(ReplicaTest, ALiveLeaderLeaseRefusesOtherProposers) {
  ASSERT_EQ(commit(2, Ballot{1, 2}, makeLeaderChange(2, 3000)), 0);
  ASSERT_EQ(replica_->sync({from(2, 1), Ballot{}, false, {}}, kNow).result, kPeerOk);
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{9, 3}}, kNow + 100).result, kPeerRejected);
  EXPECT_EQ(replica_->prepare({from(2, 1), Ballot{9, 2}}, kNow + 100).result, kPeerOk);
  const PeerHeader afterLease{3, kNow + 3101, 1};
  EXPECT_EQ(replica_->prepare({afterLease, Ballot{10, 3}}, kNow + 3101).result, kPeerOk);
}

// The leader's own acceptor is bound by the lease it renews, so that a rival
// cannot win it over while the followers still honour that lease.
TEST_F(ReplicaTest, TheLeaderIsBoundByItsOwnRenewedLease) {
  ASSERT_EQ(commit(1, Ballot{1, 1}, makeLeaderChange(1, 3000)), 0);
  const int64_t renewed = kNow + 10000;
  replica_->noteOwnLease(renewed);
  const auto rival = [&](int64_t at, int32_t number) {
    return replica_->prepare({{3, at, 1}, Ballot{number, 3}}, at).result;
  };
  EXPECT_EQ(rival(renewed + 100, 9), kPeerRejected);
  EXPECT_EQ(rival(renewed + 3101, 10), kPeerOk);
}

// A new uid must not count as applied already: its number lies above the horizon
// and every recorded number, whichever server recorded them.
TEST_F(ReplicaTest, NewUidsLieAboveEveryRecordedNumber) {
  InitRequest init = makeInitRequest(77, {NodeEntry{1, 0, "a", "127.0.0.1", 1}}, {}, 1);
  init.dblock.seq = 40;
  init.dblock.committed.horizon = 500;
  init.dblock.committed.updates[{5, 1}] = 600;
  StateStore store(dir_ + "/other.paxos", 1);
  Replica replica(&store, 1);
  ASSERT_EQ(replica.init(init), 0);
  const Uid first = replica.newUid();
  EXPECT_EQ(first.seq, 601);
  EXPECT_FALSE(init.dblock.committed.includes(first));
  EXPECT_EQ(replica.newUid().seq, 602);  // and above this server's last one
}

// A store cut short at any byte leaves the previous state loadable, and a restart
// goes on from the newer intact copy.
TEST_F(ReplicaTest, EveryCutOfAStoreLeavesTheOtherCopy) {
  // The commit is written along with the next promise: copy 1 then holds seq 1,
  // copy 2 the acceptance at seq 0.
  ASSERT_EQ(commit(1, Ballot{1, 1}, put("a", 1)), 0);
  ASSERT_EQ(replica_->prepare({from(1, 1), Ballot{2, 1}}, kNow).result, kPeerOk);
  const std::string newer = dir_ + "/qcr.paxos.1";
  std::string full;
  ASSERT_EQ(readFile(newer, &full), 0);
  for (size_t cut = 0; cut < full.size(); ++cut) {
    ASSERT_EQ(writeFile(newer, full.substr(0, cut), 0660, false), 0);
    StateStore store(dir_ + "/qcr.paxos", 1);
    PaxosFileData data;
    uint64_t cid = 0;
    ASSERT_EQ(store.load(77, &data, &cid), 0) << cut;
    EXPECT_EQ(data.dblk.seq, 0) << cut;  // the copy written before
  }
  ASSERT_EQ(writeFile(newer, full, 0660, false), 0);
  Replica restarted(store_.get(), 1);
  ASSERT_EQ(restarted.load(kNow), 0);
  EXPECT_EQ(restarted.seq(), 1);
  EXPECT_EQ(restarted.newUid().epoch, 2);  // each start raises the epoch
  // A copy of another cluster counts as damaged.
  StateStore other(dir_ + "/qcr.paxos", 1);
  PaxosFileData data;
  uint64_t cid = 0;
  EXPECT_EQ(other.load(78, &data, &cid), E_CORRUPT_STATE);
}

}  // namespace
}  // namespace qcr
