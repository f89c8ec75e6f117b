// The proposer against in-process acceptors: real replicas, each with its own
// state files and fake clock, behind connections that hand a message straight to
// the acceptor. Tests choose the acceptors' states, cut links and move time.
#include "qcr/server/proposer.h"

#include <cerrno>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "basic/files.h"
#include "qcr/comm/msg_types.h"
#include "qcr/server/apply.h"
#include "testing/fake_clock.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

constexpr int32_t kLeaseMs = 3000;
constexpr double kLease = kLeaseMs / 1000.0;

struct Node {
  Node(const std::string& dir, int32_t id, double wallSkew)
      : clock(100, 1.7e9 + wallSkew),
        store(dir + "/n" + std::to_string(id) + ".paxos", id),
        replica(&store, id, clock) {}
  test::FakeClock clock;
  StateStore store;
  Replica replica;
  std::unique_ptr<Proposer> proposer;  // on the nodes a test lets propose
};

// One message an acceptor took: who sent it, and when on both clocks.
struct Delivery {
  int32_t from;
  int32_t to;
  int type;
  double senderTime;
  ProposedUpdate update;  // of an accept
};

class Network {
 public:
  std::vector<std::unique_ptr<Node>> nodes;  // node id i at index i - 1

  Node& node(int32_t id) { return *nodes[static_cast<size_t>(id - 1)]; }
  void advanceAll(double seconds) {
    for (auto& n : nodes) n->clock.advance(seconds);
  }
  void cut(int32_t from, int32_t to) {
    std::lock_guard<std::mutex> lock(mu_);
    down_.push_back({from, to});
  }
  void isolate(int32_t id) {
    for (auto& n : nodes) {
      const int32_t other = n->replica.nodeId();
      if (other != id) cut(id, other), cut(other, id);
    }
  }
  void heal() {
    std::lock_guard<std::mutex> lock(mu_);
    down_.clear();
  }
  std::vector<Delivery> log() {
    std::lock_guard<std::mutex> lock(mu_);
    return log_;
  }
  std::vector<Delivery> log(int32_t from, int32_t to, int type) {
    std::vector<Delivery> got;
    for (const Delivery& d : log()) {
      if (d.from == from && d.to == to && d.type == type) got.push_back(d);
    }
    return got;
  }

  // The acceptor's answer to one message, or the failure of a cut link.
  int deliver(int32_t from, int32_t to, int type, const uint8_t* body, int len, Message* replyP) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (const auto& [a, b] : down_) {
        if (a == from && b == to) return kErrPeerClosed;
      }
    }
    Node& dest = node(to);
    Delivery d{from, to, type, node(from).clock.now(), {}};
    AcceptorReply r;
    int rc = E_ILL_FORMED_MSG;
    switch (type) {
      case MSG_TYPE_PXREAD: {
        PrepareMsg m;
        rc = decodeBody(body, static_cast<size_t>(len), &m);
        if (rc == 0) r = dest.replica.prepare(m);
        replyP->type = MSG_TYPE_REPLY_PXREAD;
        break;
      }
      case MSG_TYPE_PXWRITE: {
        AcceptMsg m;
        rc = decodeBody(body, static_cast<size_t>(len), &m);
        if (rc == 0) r = dest.replica.accept(m);
        d.update = m.update;
        replyP->type = MSG_TYPE_REPLY_PXWRITE;
        break;
      }
      case MSG_TYPE_PXRDWR: {
        SyncMsg m;
        rc = decodeBody(body, static_cast<size_t>(len), &m);
        if (rc == 0) r = dest.replica.sync(m);
        replyP->type = MSG_TYPE_REPLY_PXRDWR;
        break;
      }
      case MSG_TYPE_PXINIT: {
        CatchUpMsg m;
        rc = decodeBody(body, static_cast<size_t>(len), &m);
        if (rc == 0 && !dest.proposer) rc = ENOENT;
        if (rc == 0) r = dest.proposer->catchUpReply(m);
        replyP->type = MSG_TYPE_REPLY_PXRDWR;
        break;
      }
    }
    if (rc != 0) return rc;
    replyP->body = encodeBody(r);
    std::lock_guard<std::mutex> lock(mu_);
    log_.push_back(d);
    return 0;
  }

 private:
  std::mutex mu_;
  std::vector<std::pair<int32_t, int32_t>> down_;
  std::vector<Delivery> log_;
};

// A connection from one node to another: a send is answered at once, the answer
// waits for the next receive.
class AcceptorConnection final : public Connection {
 public:
  AcceptorConnection(Network& net, int32_t from, int32_t to)
      : Connection(PeerAddress{}), net_(net), from_(from), to_(to) {}

  int send(int msgType, const void* body, int len) override {
    pending_ = Message{};
    const int rc = net_.deliver(from_, to_, msgType, static_cast<const uint8_t*>(body), len, &pending_);
    if (rc != 0) markBad();
    return rc;
  }
  int receive(int* msgTypeP, std::unique_ptr<uint8_t[]>* msgDataP, int* lenP) override {
    *msgTypeP = pending_.type;
    *lenP = static_cast<int>(pending_.body.size());
    msgDataP->reset();
    if (pending_.type < 0) return kErrPeerClosed;
    if (*lenP > 0) {
      msgDataP->reset(new uint8_t[pending_.body.size()]);
      memcpy(msgDataP->get(), pending_.body.data(), pending_.body.size());
    }
    pending_ = Message{};
    return 0;
  }
  void close() override {}
  int getSocket() const override { return -1; }
  uint64_t peerClusterId() const override { return 0; }
  int peerNodeValue() const override { return to_; }

 private:
  Network& net_;
  const int32_t from_;
  const int32_t to_;
  Message pending_;
};

// The other nodes as one node's proposer sees them; a round runs in the caller.
class FakePeers final : public PeerRounds {
 public:
  FakePeers(Network& net, int32_t self) : net_(net), self_(self) {}

  std::shared_ptr<Round> broadcast(const PeerJob& job, double deadline) override {
    auto round = std::make_shared<Round>(static_cast<int>(net_.nodes.size()) - 1, deadline,
                                         net_.node(self_).clock);
    for (auto& n : net_.nodes) {
      const int32_t id = n->replica.nodeId();
      if (id != self_) round->add(run(id, job));
    }
    return round;
  }
  std::shared_ptr<Round> sendTo(int32_t id, const PeerJob& job, double deadline) override {
    auto round = std::make_shared<Round>(1, deadline, net_.node(self_).clock);
    round->add(run(id, job));
    return round;
  }

 private:
  PeerAnswer run(int32_t id, const PeerJob& job) {
    AcceptorConnection conn(net_, self_, id);
    PeerAnswer a = job(id, conn);
    a.peer = id;
    return a;
  }
  Network& net_;
  const int32_t self_;
};

ProposedUpdate valuePut(const std::string& name, const Uid& uid) {
  ProposedUpdate u;
  u.kind = UpdateKind::ValuePut;
  u.name = name;
  u.value = name;
  u.uid = uid;
  return u;
}

UpdateBuilder putValue(const std::string& name) {
  return [name](const CommittedState& committed, const FileNames&, ProposedUpdate* u) {
    VputRequest r;
    r.name = name;
    r.value = name;
    return makeValuePut(committed, r, u);
  };
}

class ProposerTest : public testing::Test {
 protected:
  // n nodes of one repository; wallSkews[i] sets node i + 1's wall clock apart.
  void makeCluster(int n, std::vector<double> wallSkews = {}) {
    wallSkews.resize(static_cast<size_t>(n));
    NodeList list;
    for (int32_t id = 1; id <= n; ++id) list.push_back(NodeEntry{id, 0, "n", "127.0.0.1", 1190 + id});
    const InitRequest init = makeInitRequest(77, list, {}, 1);
    for (int32_t id = 1; id <= n; ++id) {
      net_.nodes.push_back(std::make_unique<Node>(dir_.path(), id, wallSkews[static_cast<size_t>(id - 1)]));
      ASSERT_EQ(net_.node(id).replica.init(init), 0);
    }
  }
  Proposer& proposerOn(int32_t id) {
    Node& node = net_.node(id);
    peers_.push_back(std::make_unique<FakePeers>(net_, id));
    ProposerOptions options;
    options.leaseMs = kLeaseMs;
    node.proposer = std::make_unique<Proposer>(&node.replica, peers_.back().get(), options, node.clock);
    return *node.proposer;
  }
  // As the server runs a change: lead first, then the uid, then the synod.
  int change(int32_t id, const UpdateBuilder& build) {
    Proposer& p = *net_.node(id).proposer;
    std::lock_guard<std::mutex> lock(p.changeLock());
    const int rc = p.lead();
    return rc != 0 ? rc : p.runChange(net_.node(id).replica.newUid(), build);
  }
  int lead(int32_t id, int32_t unreachable = -1) {
    Proposer& p = *net_.node(id).proposer;
    std::lock_guard<std::mutex> lock(p.changeLock());
    return p.lead(unreachable);
  }
  PeerHeader header(int32_t from, int32_t seq) {
    return {from, static_cast<int64_t>(net_.node(from).clock.wallNow() * 1000.0), seq};
  }
  // A prepare from rival to node at, with a ballot above everything so far.
  int32_t rivalPrepare(int32_t rival, int32_t at) {
    Replica& r = net_.node(at).replica;
    return r.prepare({header(rival, r.seq()), Ballot{1000 + ++rivalBallots_, rival}}).result;
  }
  std::vector<std::string> acceptedAt(int32_t from, int32_t to) {
    std::vector<std::string> names;
    for (const Delivery& d : net_.log(from, to, MSG_TYPE_PXWRITE)) {
      names.push_back(d.update.kind == UpdateKind::Leader ? "lu" : d.update.name);
    }
    return names;
  }

  test::ScopedTempDir dir_{"qcr-proposer-"};
  std::vector<std::unique_ptr<FakePeers>> peers_;
  Network net_;
  int32_t rivalBallots_ = 0;
};

// A node that missed commits gets the leader's state under the ballot it
// promised the leader, and adopts it.
TEST_F(ProposerTest, ANodeBehindAdoptsTheLeadersStateUnderThePromisedBallot) {
  makeCluster(3);
  proposerOn(1);
  ASSERT_EQ(change(1, putValue("a")), 0);
  net_.isolate(3);
  ASSERT_EQ(change(1, putValue("b")), 0);
  ASSERT_EQ(change(1, putValue("c")), 0);
  net_.heal();
  ASSERT_EQ(change(1, putValue("d")), 0);
  EXPECT_EQ(net_.node(3).replica.seq(), net_.node(1).replica.seq());
  EXPECT_EQ(net_.node(3).replica.view().committed.values.count("c"), 1u);
}

// Left-over acceptances at seq 0: X under (3,4) on nodes 2 and 4, a later Y under
// (5,5) on node 5 alone, node 3 promised (5,5). Only Y may have been chosen, so a
// new proposer must re-propose Y, whatever order the promises come in, and only
// then its own change.
TEST_F(ProposerTest, PhaseOneReproposesTheLeftoverOfTheHighestBallot) {
  makeCluster(5);
  const Ballot b4{3, 4}, b5{5, 5};
  const ProposedUpdate x = valuePut("x", Uid{4, 1, 1});
  const ProposedUpdate y = valuePut("y", Uid{5, 1, 1});
  const auto hdr = [&](int32_t from) { return header(from, 0); };
  for (int32_t id : {2, 4}) ASSERT_EQ(net_.node(id).replica.accept({hdr(4), b4, x}).result, kPeerOk);
  for (int32_t id : {1, 3}) ASSERT_EQ(net_.node(id).replica.prepare({hdr(5), b5}).result, kPeerOk);
  ASSERT_EQ(net_.node(5).replica.accept({hdr(5), b5, y}).result, kPeerOk);

  proposerOn(1);
  ASSERT_EQ(change(1, putValue("z")), 0);
  const CommittedState c = net_.node(1).replica.view().committed;
  EXPECT_EQ(c.values.count("y"), 1u);
  EXPECT_EQ(c.values.count("x"), 0u);
  EXPECT_EQ(c.values.count("z"), 1u);
  EXPECT_EQ(c.leaderId, 1);
  EXPECT_EQ(acceptedAt(1, 2), (std::vector<std::string>{"y", "lu", "z"}));
  // Every acceptor learnt the same decisions.
  for (int32_t id = 2; id <= 5; ++id) {
    EXPECT_EQ(net_.node(id).replica.view().committed, c) << "node " << id;
  }
}

// The leader's accept of X reaches node 2 only and fails. A new leader that cannot
// reach the old one takes over once the lease ran out, finds X in phase 1 and
// completes it before its own leader change.
TEST_F(ProposerTest, ANewLeaderCompletesAPartiallyAcceptedChange) {
  makeCluster(5);
  proposerOn(1);
  ASSERT_EQ(lead(1), 0);
  const int32_t seq = net_.node(1).replica.seq();
  for (int32_t id : {3, 4, 5}) net_.cut(1, id);
  EXPECT_EQ(change(1, putValue("x")), E_NO_QUORUM);
  EXPECT_EQ(net_.node(1).replica.seq(), seq);
  EXPECT_EQ(acceptedAt(1, 2).back(), "x");

  net_.isolate(1);
  Proposer& second = proposerOn(3);
  EXPECT_EQ(lead(3), E_NOT_LEADER);  // the lease lives in node 3's view
  net_.advanceAll(kLease + 0.1);
  ASSERT_EQ(lead(3, 1), 0);
  EXPECT_TRUE(second.leaseHeld());
  const ReplicaView v = net_.node(3).replica.view();
  EXPECT_EQ(v.seq, seq + 2);
  EXPECT_EQ(v.committed.values.count("x"), 1u);
  EXPECT_EQ(v.committed.leaderId, 3);
  EXPECT_EQ(acceptedAt(3, 4), (std::vector<std::string>{"x", "lu"}));
}

// A change is built and proposed only while its client still waits for it: a
// change its client gave up on (after a pause of this server, say) must not land
// after the newer ones that client made meanwhile.
TEST_F(ProposerTest, AChangeIsProposedOnlyWhileItsClientWaits) {
  makeCluster(3);
  proposerOn(1);
  ASSERT_EQ(lead(1), 0);
  Proposer& p = *net_.node(1).proposer;
  const auto run = [&](const char* name, const std::function<bool()>& wanted) {
    std::lock_guard<std::mutex> lock(p.changeLock());
    return p.runChange(net_.node(1).replica.newUid(), putValue(name), wanted);
  };
  EXPECT_EQ(run("gone", [] { return false; }), ETIMEDOUT);
  EXPECT_EQ(run("waiting", [] { return true; }), 0);
  EXPECT_EQ(acceptedAt(1, 2), (std::vector<std::string>{"lu", "waiting"}));
  // Held up right after the look at its client: the proposal is dated before the
  // hold-up, and the acceptors find it too old (by the next look the client is
  // gone). No acceptor took it, so the next round, which would have to complete
  // it, does not bring it back.
  bool first = true;
  EXPECT_NE(run("held up", [&] {
              if (!first) return false;
              first = false;
              net_.advanceAll(3.0);
              return true;
            }),
            0);
  EXPECT_EQ(run("after", [] { return true; }), 0);
  for (int32_t node = 1; node <= 3; ++node) {
    const CommittedState c = net_.node(node).replica.view().committed;
    EXPECT_EQ(c.values.count("gone"), 0u) << node;
    EXPECT_EQ(c.values.count("held up"), 0u) << node;
    EXPECT_EQ(c.values.count("after"), node == 1 ? 1u : c.values.count("after")) << node;
  }
  EXPECT_EQ(net_.node(1).replica.view().committed.values.count("waiting"), 1u);
}

// A leader whose state cannot be written (its disk is full) stands down at the
// first failed write and answers 808 for the back-off time without asking anyone,
// so that its lease runs out and another server takes over. After the back-off it
// probes its own disk before it sends anything; once the disk has room it takes
// part again, learns the new leader and follows it.
TEST_F(ProposerTest, ALeaderThatCannotWriteItsStateStandsDownForAnother) {
  makeCluster(3);
  Proposer& first = proposerOn(1);
  ASSERT_EQ(lead(1), 0);
  const std::string full = dir_.file("n1.full");
  net_.node(1).store.setFullDiskFlag(full);
  ASSERT_EQ(writeFile(full, "", 0644, false), 0);
  EXPECT_EQ(change(1, putValue("x")), E_NOT_ACTIVE);
  EXPECT_FALSE(first.leaseHeld());
  const size_t sent = net_.log().size();
  EXPECT_EQ(lead(1), E_NOT_ACTIVE);
  net_.advanceAll(kLease + 0.1);
  EXPECT_EQ(lead(1), E_NOT_ACTIVE);
  EXPECT_FALSE(first.catchUpReply(header(2, net_.node(2).replica.seq())).leaseHeld);
  EXPECT_EQ(net_.log().size(), sent);  // no renewal, no attempt to lead

  // Node 2 takes over and completes x, which the followers had accepted.
  proposerOn(2);
  ASSERT_EQ(change(2, putValue("y")), 0);
  const CommittedState c = net_.node(2).replica.view().committed;
  EXPECT_EQ(c.leaderId, 2);
  EXPECT_EQ(c.values.count("x"), 1u);
  EXPECT_EQ(c.values.count("y"), 1u);

  const double backOff = ProposerOptions{}.writeBackOffSeconds;
  net_.advanceAll(backOff);
  const size_t probed = net_.log().size();
  EXPECT_EQ(lead(1), E_NOT_ACTIVE);  // the probe fails: still nothing sent
  EXPECT_EQ(net_.log().size(), probed);
  ASSERT_EQ(removeFile(full), 0);
  net_.advanceAll(backOff);
  EXPECT_EQ(lead(1), E_NOT_LEADER);
  const CommittedState back = net_.node(1).replica.view().committed;
  EXPECT_EQ(back.leaderId, 2);
  EXPECT_EQ(back.values.count("y"), 1u);
}

// The leader holds its lease for three quarters of it from before the renewal it
// sent; a follower refuses other proposers for a whole lease from the renewal's
// arrival. The lease thread renews every quarter lease.
TEST_F(ProposerTest, TheLeaseLivesItsTimeAndIsRenewedEveryQuarter) {
  makeCluster(3);
  Proposer& leader = proposerOn(1);
  ASSERT_EQ(lead(1), 0);
  ASSERT_TRUE(leader.leaseHeld());
  net_.advanceAll(kLease * 0.75 - 0.01);
  EXPECT_TRUE(leader.leaseHeld());
  net_.advanceAll(0.02);
  EXPECT_FALSE(leader.leaseHeld());
  EXPECT_EQ(rivalPrepare(3, 2), kPeerRejected);
  EXPECT_EQ(rivalPrepare(2, 1), kPeerRejected);  // the leader's own acceptor is bound too
  net_.advanceAll(kLease * 0.25);
  EXPECT_EQ(rivalPrepare(3, 2), kPeerOk);
  // Node 2 promised the rival: its answer to a renewal must not count, or the
  // rival and node 2 could decide a leader change under the leader's lease.
  net_.cut(1, 3);
  EXPECT_FALSE(leader.catchUpReply(header(3, net_.node(3).replica.seq())).leaseHeld);
  EXPECT_FALSE(leader.leaseHeld());

  // A fresh leader under the lease thread: the thread's sleeps move the leader's
  // clock, and every renewal goes out a quarter lease after the one before.
  net_.heal();
  net_.advanceAll(kLease + 0.1);
  ASSERT_EQ(lead(1), 0);
  const size_t before = net_.log(1, 2, MSG_TYPE_PXRDWR).size();
  leader.start();
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (net_.log(1, 2, MSG_TYPE_PXRDWR).size() < before + 5 && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  leader.stop();
  const std::vector<Delivery> renewals = net_.log(1, 2, MSG_TYPE_PXRDWR);
  ASSERT_GE(renewals.size(), before + 5);
  for (size_t i = before + 1; i < renewals.size(); ++i) {
    EXPECT_NEAR(renewals[i].senderTime - renewals[i - 1].senderTime, kLease / 4, 1e-6) << i;
  }
  EXPECT_TRUE(leader.leaseHeld());
}

// Wall clocks that are seconds apart from the start, or stepped while the lease
// runs, move neither the leader's lease end nor a follower's.
class ProposerSkewTest : public ProposerTest, public testing::WithParamInterface<double> {};

TEST_P(ProposerSkewTest, WallClocksNeitherShortenNorLengthenTheLease) {
  const double skew = GetParam();
  makeCluster(3, {0, skew, skew});
  Proposer& leader = proposerOn(1);
  ASSERT_EQ(lead(1), 0);
  // The fake peers answer in no time: leader and followers start the lease at once.
  net_.node(1).clock.stepWall(skew);
  net_.node(2).clock.stepWall(skew);
  net_.node(3).clock.stepWall(-skew);
  net_.advanceAll(kLease * 0.75 - 0.01);
  EXPECT_TRUE(leader.leaseHeld());
  net_.advanceAll(0.02);
  EXPECT_FALSE(leader.leaseHeld());
  net_.advanceAll(kLease * 0.25 - 0.02);
  EXPECT_EQ(rivalPrepare(3, 2), kPeerRejected);
  net_.advanceAll(0.02);
  EXPECT_EQ(rivalPrepare(3, 2), kPeerOk);
}

INSTANTIATE_TEST_SUITE_P(AheadAndBehind, ProposerSkewTest, testing::Values(-5.0, 5.0));

// Changes handed to the change thread by many callers at once are all decided, one
// synod each, in the order of the uids they were announced with, and every
// commit reaches the followers; once the proposer stopped, a change is refused
// at once.
TEST_F(ProposerTest, QueuedChangesAreDecidedInTheOrderOfTheirUids) {
  makeCluster(3);
  Proposer& p = proposerOn(1);
  p.startChangeThread();
  constexpr int kCallers = 6, kEach = 4;
  std::mutex mu;
  std::map<std::string, Uid> announced;
  std::atomic<int> failures{0};
  std::vector<std::thread> callers;
  for (int c = 0; c < kCallers; ++c) {
    callers.emplace_back([&, c] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "v" + std::to_string(c) + "-" + std::to_string(i);
        Proposer::Change change;
        change.build = putValue(name);
        change.announce = [&, name](const Uid& uid) {
          std::lock_guard<std::mutex> lock(mu);
          announced[name] = uid;
        };
        if (p.submit(change) != 0) ++failures;
      }
    });
  }
  for (std::thread& t : callers) t.join();
  EXPECT_EQ(failures, 0);
  std::vector<std::string> order = acceptedAt(1, 2);
  std::erase(order, "lu");
  ASSERT_EQ(order.size(), static_cast<size_t>(kCallers * kEach));
  for (size_t i = 1; i < order.size(); ++i) {
    EXPECT_LT(announced[order[i - 1]].seq, announced[order[i]].seq) << order[i];
  }
  EXPECT_EQ(net_.node(1).replica.view().committed.values.size(), order.size());
  // A commit waits for the next acceptance while changes queue, and goes out
  // alone once none does: each reaches a follower once, and the follower ends
  // where the leader does (the one more is the lease round of taking the lead).
  EXPECT_EQ(net_.log(1, 2, MSG_TYPE_PXRDWR).size(), net_.log(1, 2, MSG_TYPE_PXWRITE).size() + 1);
  EXPECT_EQ(net_.node(2).replica.seq(), net_.node(1).replica.seq());

  p.stop();
  Proposer::Change late;
  late.build = putValue("late");
  EXPECT_EQ(p.submit(late), E_NOT_ACTIVE);
}

// A change handed over while the change thread waits on an empty queue wakes
// it: callers one at a time, each after the thread went idle, are served at once.
TEST_F(ProposerTest, AChangeWakesTheIdleChangeThread) {
  makeCluster(3);
  Proposer& p = proposerOn(1);
  p.startChangeThread();
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the thread goes idle
    auto done = std::async(std::launch::async, [&p, i] {
      Proposer::Change change;
      change.build = putValue("idle" + std::to_string(i));
      return p.submit(change);
    });
    const bool served = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!served) p.stop();  // the waiting caller sees the stop and returns
    EXPECT_TRUE(served) << "change " << i;
    EXPECT_EQ(done.get(), served ? 0 : E_NOT_ACTIVE);
    if (!served) return;
  }
  p.stop();
}

// The commit of a change is held for the acceptance of the change queued behind
// it; when that change ends before its synod, the commit goes out at once, even
// while more changes wait: the followers do not wait for those to hear of it.
TEST_F(ProposerTest, AHeldCommitGoesOutWhenTheNextChangeEndsBeforeItsSynod) {
  makeCluster(3);
  Proposer& p = proposerOn(1);
  p.startChangeThread();
  std::promise<void> reached, release;
  std::shared_future<void> released = release.get_future().share();
  std::thread second, third;
  Proposer::Change first;
  first.build = putValue("first");
  first.announce = [&](const Uid&) {
    second = std::thread([&p] {
      Proposer::Change abandoned;
      abandoned.build = putValue("second");
      abandoned.wanted = [] { return false; };  // its client gave up meanwhile
      EXPECT_EQ(p.submit(abandoned), ETIMEDOUT);
    });
    for (int i = 0; i < 5000 && p.queuedChanges() < 1; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    third = std::thread([&] {
      Proposer::Change held;
      held.build = putValue("third");
      held.wanted = [&] {
        reached.set_value();
        (void)released.wait_for(std::chrono::seconds(5));
        return false;
      };
      EXPECT_EQ(p.submit(held), ETIMEDOUT);
    });
    for (int i = 0; i < 5000 && p.queuedChanges() < 2; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  EXPECT_EQ(p.submit(first), 0);
  // The change thread holds the third change now.
  EXPECT_EQ(reached.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(net_.node(2).replica.seq(), net_.node(1).replica.seq());
  EXPECT_EQ(net_.node(3).replica.seq(), net_.node(1).replica.seq());
  release.set_value();
  second.join();
  third.join();
  EXPECT_EQ(net_.node(1).replica.view().committed.values.count("first"), 1u);
  p.stop();
}

}  // namespace
}  // namespace qcr
