// The acceptor's rules and the state file copies.
#include "qcr/server/replica.h"

#include <gtest/gtest.h>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/coding/result.h"
#include "qcr/data/state_file.h"
#include "testing/fake_clock.h"

namespace qcr {
namespace {

class ReplicaTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(makeTempDir("qcrd-replica-", &dir_), 0);
    store_ = std::make_unique<StateStore>(dir_ + "/qcr.paxos", 1);
    replica_ = std::make_unique<Replica>(store_.get(), 1, clock_);
    NodeList nodes = {NodeEntry{1, 0, "a", "127.0.0.1", 1}, NodeEntry{2, 0, "b", "127.0.0.1", 2},
                      NodeEntry{3, 0, "c", "127.0.0.1", 3}};
    ASSERT_EQ(replica_->init(makeInitRequest(77, nodes, {}, 1)), 0);
  }
  void TearDown() override { (void)removeTree(dir_); }

  int64_t wallMs() { return static_cast<int64_t>(clock_.wallNow() * 1000.0); }
  PeerHeader from(int32_t node, int32_t seq, int64_t ageMs = 0) {
    return {node, wallMs() - ageMs, seq};
  }
  // Accepts and commits u as the proposer does once a majority accepted it.
  int commit(int32_t node, const Ballot& ballot, const ProposedUpdate& u) {
    const int32_t seq = replica_->seq();
    if (replica_->accept({from(node, seq), ballot, u}).result != kPeerOk) return -1;
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

  test::FakeClock clock_{500, 1.7e9};
  std::string dir_;
  std::unique_ptr<StateStore> store_;
  std::unique_ptr<Replica> replica_;
};

TEST_F(ReplicaTest, PromisesAndAcceptancesFollowTheBallots) {
  const Ballot b5{5, 2}, b4{4, 3}, b6{6, 3};
  EXPECT_EQ(replica_->prepare({from(2, 0), b5}).result, kPeerOk);
  EXPECT_EQ(replica_->prepare({from(2, 0), b5}).result, kPeerOk);  // asked again
  EXPECT_EQ(replica_->prepare({from(3, 0), b4}).result, kPeerRejected);
  EXPECT_EQ(replica_->accept({from(3, 0), b4, put("a", 1)}).result, kPeerRejected);
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("a", 1)}).result, kPeerOk);
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("a", 1)}).result, kPeerOk);  // again
  EXPECT_EQ(replica_->accept({from(2, 0), b5, put("other", 2)}).result, kPeerRejected);
  // A later prepare learns what was accepted.
  const AcceptorReply r = replica_->prepare({from(3, 0), b6});
  EXPECT_EQ(r.result, kPeerOk);
  EXPECT_EQ(r.bal, b5);
  EXPECT_EQ(r.inp, put("a", 1));
  // Position and age come first.
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{9, 3}}).result, kPeerBehind);
  EXPECT_EQ(replica_->prepare({from(3, 0, kMaxMessageAgeMs + 1), Ballot{9, 3}}).result,
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
  ASSERT_EQ(replica_->accept({from(2, 0), b, put("a", 1)}).result, kPeerOk);
  SyncMsg notice{from(2, 1), b, false, {}};
  EXPECT_EQ(replica_->sync(notice).result, kPeerOk);
  EXPECT_EQ(replica_->seq(), 1);
  EXPECT_EQ(replica_->view().committed.values.at("a").text, "x");

  // Two commits further on, without the state: behind; with it: caught up.
  SyncMsg later{from(2, 3), b, false, {}};
  EXPECT_EQ(replica_->sync(later).result, kPeerBehind);
  later.hasImage = true;
  later.image.seq = 3;
  later.image.state = replica_->view().committed;
  later.image.state.values["b"] = {1, "y"};
  EXPECT_EQ(replica_->sync(later).result, kPeerOk);
  EXPECT_EQ(replica_->seq(), 3);
  // And to a stale sender it reports itself ahead, with its state.
  const AcceptorReply ahead = replica_->sync({from(3, 2), b, false, {}});
  EXPECT_EQ(ahead.result, kPeerAhead);
  EXPECT_TRUE(ahead.hasImage);
}

// A state image replaces the state only when it comes from the proposer this
// replica follows: another member, under its own ballot not below the promise.
TEST_F(ReplicaTest, ASyncImageIsAdoptedOnlyFromTheProposerItFollows) {
  ASSERT_EQ(replica_->prepare({from(2, 0), Ballot{5, 2}}).result, kPeerOk);
  const auto image = [&](int32_t node, Ballot ballot, int32_t seq, int64_t ageMs = 0) {
    SyncMsg sync{from(node, seq, ageMs), ballot, true, {}};
    sync.image.seq = seq;
    sync.image.state = replica_->view().committed;
    sync.image.state.values["b"] = {1, "y"};
    return sync;
  };
  struct Case {
    const char* what;
    SyncMsg sync;
    int32_t result;
  };
  const Case refused[] = {
      {"below the promise", image(2, {4, 2}, 3), kPeerRejected},
      {"another node's ballot", image(3, {5, 2}, 3), kPeerRejected},
      {"sent as this server", image(1, {6, 1}, 3), kPeerRejected},
      {"no member", image(9, {6, 9}, 3), kPeerRejected},
      {"stale", image(2, {5, 2}, 3, kMaxMessageAgeMs + 1), kPeerStale},
      {"not newer", image(2, {5, 2}, 0), kPeerOk},
  };
  for (const Case& k : refused) {
    EXPECT_EQ(replica_->sync(k.sync).result, k.result) << k.what;
    EXPECT_EQ(replica_->view().committed.values.count("b"), 0u) << k.what;
  }
  EXPECT_EQ(replica_->sync(image(2, {5, 2}, 3)).result, kPeerOk);
  EXPECT_EQ(replica_->seq(), 3);
  EXPECT_EQ(replica_->sync(image(3, {6, 3}, 4)).result, kPeerOk);  // a higher ballot
  EXPECT_EQ(replica_->seq(), 4);
}

TEST_F(ReplicaTest, ALiveLeaderLeaseRefusesOtherProposers) {
  ASSERT_EQ(commit(2, Ballot{1, 2}, makeLeaderChange(2, 3000)), 0);
  ASSERT_EQ(replica_->sync({from(2, 1), Ballot{}, false, {}}).result, kPeerOk);
  clock_.advance(0.1);
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{9, 3}}).result, kPeerRejected);
  EXPECT_EQ(replica_->prepare({from(2, 1), Ballot{9, 2}}).result, kPeerOk);
  clock_.advance(3.001);
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{10, 3}}).result, kPeerOk);
}

// The leader's own acceptor is bound by the lease it renews, so that a rival
// cannot win it over while the followers still honour that lease.
TEST_F(ReplicaTest, TheLeaderIsBoundByItsOwnRenewedLease) {
  ASSERT_EQ(commit(1, Ballot{1, 1}, makeLeaderChange(1, 3000)), 0);
  clock_.advance(10);
  replica_->noteOwnLease(clock_.now());
  clock_.advance(0.1);
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{9, 3}}).result, kPeerRejected);
  clock_.advance(3.001);
  EXPECT_EQ(replica_->prepare({from(3, 1), Ballot{10, 3}}).result, kPeerOk);
}

// Ages come from the sender's own clock: any fixed offset between the clocks is no
// age, a wait is, and a sender whose wall clock went back is current again once its
// messages keep coming at a live pace.
TEST(MessageAgesTest, AgesIgnoreClockOffsetsButShowWaits) {
  MessageAges ages;
  constexpr int64_t kTooOld = kMaxMessageAgeMs;
  const int64_t skew = -90000;  // the sender's wall clock is 90 s behind this one
  int64_t now = 5000;           // this server's monotonic clock, ms
  EXPECT_EQ(ages.age(2, now + skew, now, kTooOld), 0);
  now += 300;
  EXPECT_EQ(ages.age(2, now + skew - 40, now, kTooOld), 40);   // in flight for 40 ms
  EXPECT_EQ(ages.age(2, now + skew - 2500, now, kTooOld), 2500);  // waited
  EXPECT_EQ(ages.age(3, now + 777777, now, kTooOld), 0);     // each sender its own offset
  // A backlog delivered at once stays too old, and fresh messages are fresh.
  EXPECT_GT(ages.age(2, now + skew - 9000, now, kTooOld), kTooOld);
  EXPECT_GT(ages.age(2, now + skew - 8950, now + 1, kTooOld), kTooOld);
  EXPECT_GT(ages.age(2, now + skew - 8900, now + 2, kTooOld), kTooOld);
  EXPECT_EQ(ages.age(2, now + skew + 3, now + 3, kTooOld), 0);
  // The sender's wall clock steps forward: nothing changes.
  now += 1000;
  EXPECT_EQ(ages.age(2, now + skew + 60000, now, kTooOld), 0);
  EXPECT_EQ(ages.age(2, now + skew + 60000 + 250, now + 250, kTooOld), 0);
  // And back by five seconds: too old until a second message agrees at a live pace.
  now += 250;
  EXPECT_EQ(ages.age(2, now + skew + 55000, now, kTooOld), 5000);
  EXPECT_EQ(ages.age(2, now + skew + 55000 + 50, now + 50, kTooOld), 5000);
  EXPECT_EQ(ages.age(2, now + skew + 55000 + 250, now + 250, kTooOld), 0);
  EXPECT_EQ(ages.age(2, now + skew + 55000 + 500, now + 500, kTooOld), 0);
}

// A new uid must not count as applied already: its number lies above the horizon
// and every recorded number, whichever server recorded them.
TEST_F(ReplicaTest, NewUidsLieAboveEveryRecordedNumber) {
  InitRequest init = makeInitRequest(77, {NodeEntry{1, 0, "a", "127.0.0.1", 1}}, {}, 1);
  init.dblock.seq = 40;
  init.dblock.committed.horizon = 500;
  init.dblock.committed.updates[{5, 1}] = 600;
  StateStore store(dir_ + "/other.paxos", 1);
  Replica replica(&store, 1, clock_);
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
  ASSERT_EQ(replica_->prepare({from(1, 1), Ballot{2, 1}}).result, kPeerOk);
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
  Replica restarted(store_.get(), 1, clock_);
  ASSERT_EQ(restarted.load(), 0);
  EXPECT_EQ(restarted.seq(), 1);
  EXPECT_EQ(restarted.newUid().epoch, 2);  // each start raises the epoch
  // A copy of another cluster counts as damaged.
  StateStore other(dir_ + "/qcr.paxos", 1);
  PaxosFileData data;
  uint64_t cid = 0;
  EXPECT_EQ(other.load(78, &data, &cid), E_CORRUPT_STATE);
}

// Readers share one copy of the state until it changes; every commit, adopted
// state or learnt name gives them a new one, and the encoded reply body follows.
TEST_F(ReplicaTest, SharedViewsAndTheEncodedStateFollowEveryChange) {
  const auto before = replica_->snapshot();
  const auto encodedBefore = replica_->encodedState();
  EXPECT_EQ(replica_->snapshot(), before);
  EXPECT_EQ(replica_->encodedState(), encodedBefore);
  ASSERT_EQ(commit(2, Ballot{1, 2}, put("a", 1)), 0);
  const auto after = replica_->snapshot();
  ASSERT_NE(after, before);
  EXPECT_EQ(before->committed.values.count("a"), 0u);
  EXPECT_EQ(after->committed.values.count("a"), 1u);
  SeqCommitReply reply;
  const auto encoded = replica_->encodedState();
  ASSERT_EQ(decodeBody(encoded->data(), encoded->size(), &reply), 0);
  EXPECT_EQ(reply.seq, replica_->seq());
  EXPECT_EQ(reply.state, after->committed);
  replica_->learnNames({{7, "seven"}});
  EXPECT_EQ(replica_->snapshot()->names.count(7), 1u);
}

// A promise or acceptance that cannot be written leaves the acceptor as it was.
TEST_F(ReplicaTest, AWriteThatFailsChangesNoBallotAndNoAcceptance) {
  const Ballot b1{1, 2}, b2{2, 2};
  ASSERT_EQ(replica_->accept({from(2, 0), b1, put("a", 1)}).result, kPeerOk);
  const std::string flag = dir_ + "/full";
  store_->setFullDiskFlag(flag);
  ASSERT_EQ(writeFile(flag, "", 0644, false), 0);
  EXPECT_EQ(replica_->prepare({from(2, 0), b2}).result, kPeerNotReady);
  EXPECT_EQ(replica_->accept({from(2, 0), b2, put("b", 2)}).result, kPeerNotReady);
  EXPECT_EQ(replica_->promised(), b1);
  const PaxosFileData data = replica_->fileData();
  EXPECT_EQ(data.dblk.bal, b1);
  EXPECT_EQ(data.dblk.inp, put("a", 1));
  ASSERT_EQ(removeFile(flag), 0);
  EXPECT_EQ(replica_->commitAccepted(0, b1), 0);
  EXPECT_EQ(replica_->view().committed.values.count("a"), 1u);
}

}  // namespace
}  // namespace qcr
