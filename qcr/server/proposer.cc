#include "qcr/server/proposer.h"

#include <algorithm>
#include <cerrno>
#include <random>

#include "basic/background.h"
#include "basic/crash.h"
#include "basic/log.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_names.h"

namespace qcr {

namespace {

int majorityOf(size_t n) { return static_cast<int>(n / 2 + 1); }

// The acceptor's answer inside a peer answer, when there is one.
bool decodeAnswer(const PeerAnswer& a, int replyType, AcceptorReply* replyP) {
  return a.rc == 0 && a.reply.type == replyType &&
         decodeBody(a.reply.body.data(), a.reply.body.size(), replyP) == 0;
}

int countOk(const std::vector<PeerAnswer>& answers, int replyType) {
  int n = 0;
  for (const PeerAnswer& a : answers) {
    AcceptorReply r;
    if (decodeAnswer(a, replyType, &r) && r.result == kPeerOk) ++n;
  }
  return n;
}

// Whether some answer shows that this proposer cannot win the round.
bool anyRefusal(const std::vector<PeerAnswer>& answers, int replyType) {
  for (const PeerAnswer& a : answers) {
    AcceptorReply r;
    if (decodeAnswer(a, replyType, &r) && (r.result == kPeerRejected || r.result == kPeerAhead)) {
      return true;
    }
  }
  return false;
}

}  // namespace

Proposer::Proposer(Replica* replica, PeerRounds* peers, ProposerOptions options, Clock& clock)
    : replica_(replica), peers_(peers), options_(options), clock_(clock), disks_(clock) {}

Proposer::~Proposer() { stop(); }

std::vector<int32_t> Proposer::members(const CommittedState& state) {
  std::vector<int32_t> ids;
  for (const ConfigNodeEntry& n : state.config.nodes) {
    if (n.diskSlot >= 0) ids.push_back(n.nodeId);
  }
  return ids;
}

int Proposer::peersNeeded(const CommittedState& state) {
  if (usesDisks(state)) return std::max(state.config.minNodes, 1) - 1;
  return majorityOf(members(state).size()) - 1;
}

int Proposer::ruleFor(const CommittedState& committed, Rule* ruleP) const {
  Rule rule;
  rule.needPeers = peersNeeded(committed);
  if (usesDisks(committed)) {
    DiskList list;
    const int rc = diskList_ ? diskList_(committed, &list) : ENOENT;
    if (rc != 0) {
      qcrLog(1, "the committed disk list cannot be read here (%d): no synod", rc);
      return E_NO_QUORUM;
    }
    if (diskRuleOf(committed, replica_->nodeId(), list, &rule.disk) != 0) return E_NOT_ACTIVE;
    rule.disks = true;
  }
  *ruleP = std::move(rule);
  return 0;
}

DiskVerdict Proposer::diskStep(const Rule& rule, const PaxosFileData* mine, int32_t seq,
                               const Ballot& ballot) {
  // Owned by the job: a worker stuck in I/O may run it after this call gave up.
  auto io = std::make_shared<FileDiskAccess>(StateFileOwner{replica_->clusterId(), replica_->nodeId()});
  std::shared_ptr<const PaxosFileData> block;
  if (mine != nullptr) block = std::make_shared<const PaxosFileData>(*mine);
  const int slot = rule.disk.slot;
  const std::vector<int> others = rule.disk.others;
  const auto answers = disks_.run(
      rule.disk.paths,
      [io, block, slot, others](const std::string& disk) {
        return exchangeDisk(*io, disk, slot, block.get(), others);
      },
      clock_.now() + options_.roundSeconds);
  const DiskVerdict v = judgeDisks(answers, rule.disk.paths.size(), seq, ballot);
  if (v.result != kPeerOk) {
    qcrLog(4, "disks at seq %d under %s: result %d, %d of %zu answered, highest %s", seq,
           ballot.toString().c_str(), v.result, v.answered, rule.disk.paths.size(),
           v.highest.toString().c_str());
  }
  return v;
}

void Proposer::learnFromDisks(const DiskVerdict& verdict) {
  replica_->noteBallot(verdict.highest);
  if (verdict.result == kPeerAhead) {
    // A block carries its writer's committed state, which only decisions made.
    (void)replica_->adopt(StateImage{verdict.newest.dblk.seq, verdict.newest.dblk.committed, {}});
  }
}

// A server that takes the lead through the disks may find no node to ask, and
// the old leader may still count on a lease it confirmed on the disks before
// they showed the new ballot: that lease ends within one lease of it.
void Proposer::waitOutLeases(double since, const CommittedState& committed) {
  const double until = since + std::max(committed.lease, options_.leaseMs) / 1000.0;
  while (!stop_ && clock_.now() < until) {
    clock_.sleepUntil(std::min(until, clock_.now() + 0.05));
  }
}

int64_t Proposer::wallMs() const { return static_cast<int64_t>(clock_.wallNow() * 1000.0); }

void Proposer::backOff() {
  static thread_local std::minstd_rand random(std::random_device{}());
  const double pause = 0.02 + 0.001 * static_cast<double>(random() % 100);
  clock_.sleepUntil(clock_.now() + pause);
}

int Proposer::checkMember(bool initialised, const CommittedState& committed) const {
  if (!initialised) return E_NOT_ACTIVE;
  const std::vector<int32_t> ids = members(committed);
  const bool member = std::find(ids.begin(), ids.end(), replica_->nodeId()) != ids.end();
  return member ? E_OK : E_NOT_ACTIVE;
}

bool Proposer::leaseHeld() const {
  std::lock_guard<std::mutex> lock(leadMutex_);
  return established_ && replica_->leaderId() == replica_->nodeId() && clock_.now() < leaseEnd_;
}

void Proposer::noteWriteFailure() {
  std::lock_guard<std::mutex> lock(leadMutex_);
  const double now = clock_.now();
  // Logged loudly once per episode; a failed probe after the back-off is quieter.
  qcrLog(now >= writeBackOffEnd_ + options_.writeBackOffSeconds ? 1 : 4,
         "node %d cannot write its state: not leading for %.1f s", replica_->nodeId(),
         options_.writeBackOffSeconds);
  established_ = false;
  leaseEnd_ = 0;
  writeBackOffEnd_ = now + options_.writeBackOffSeconds;
}

bool Proposer::inWriteBackOff() const {
  std::lock_guard<std::mutex> lock(leadMutex_);
  return clock_.now() < writeBackOffEnd_;
}

PeerJob Proposer::withCatchUp(int type, std::vector<uint8_t> body, const Ballot& ballot) const {
  auto shared = std::make_shared<const std::vector<uint8_t>>(std::move(body));
  const int replyType = type == MSG_TYPE_PXREAD ? MSG_TYPE_REPLY_PXREAD
                        : type == MSG_TYPE_PXWRITE ? MSG_TYPE_REPLY_PXWRITE
                                                   : MSG_TYPE_REPLY_PXRDWR;
  Replica* replica = replica_;
  Clock* clock = &clock_;
  return [type, replyType, shared, replica, clock, ballot](int32_t peer, Connection& conn) {
    PeerAnswer a{peer, conn.send(type, *shared), {}};
    if (a.rc == 0) a.rc = conn.receive(&a.reply);
    AcceptorReply r;
    if (!decodeAnswer(a, replyType, &r) || r.result != kPeerBehind) return a;
    // The peer missed commits: hand it the whole state, then ask again.
    SyncMsg sync;
    sync.hdr = {replica->nodeId(), static_cast<int64_t>(clock->wallNow() * 1000.0), replica->seq()};
    sync.ballot = ballot;
    sync.hasImage = true;
    sync.image = replica->image();
    Message ignored;
    a.rc = conn.send(MSG_TYPE_PXRDWR, encodeBody(sync));
    if (a.rc == 0) a.rc = conn.receive(&ignored);
    if (a.rc == 0 && type != MSG_TYPE_PXRDWR) a.rc = conn.send(type, *shared);
    if (a.rc == 0 && type != MSG_TYPE_PXRDWR) a.rc = conn.receive(&a.reply);
    if (type == MSG_TYPE_PXRDWR) a.reply = ignored;
    return a;
  };
}

int Proposer::phase1(const Ballot& ballot, ProposedUpdate* leftoverP) {
  int32_t seq = 0;
  const CommittedState committed = replica_->skeleton(&seq);
  const size_t n = members(committed).size();
  Rule rule;
  if (const int rc = ruleFor(committed, &rule); rc != 0) return rc;
  PrepareMsg msg{{replica_->nodeId(), wallMs(), seq}, ballot};
  // The own promise comes first: a server that cannot write it asks nobody.
  AcceptorReply local = replica_->prepare(msg);
  if (local.result == kPeerNotReady) {
    noteWriteFailure();
    return E_NOT_ACTIVE;
  }
  if (local.result != kPeerOk) return kPeerRejected;
  auto round = peers_->broadcast(withCatchUp(MSG_TYPE_PXREAD, encodeBody(msg), ballot),
                                 clock_.now() + options_.roundSeconds);
  // With disks, this node's block carries its promise (and any acceptance) to
  // every disk, while the nodes answer.
  DiskVerdict disks;
  if (rule.disks) {
    const PaxosFileData mine = replica_->fileData();
    disks = diskStep(rule, &mine, seq, ballot);
  }
  // The block is on the disks by now (measured after the step, not before it:
  // a slow write must not shorten the wait below).
  const double wroteAt = clock_.now();
  const int need = rule.needPeers;
  const auto answers = round->wait([need](const std::vector<PeerAnswer>& got) {
    return countOk(got, MSG_TYPE_REPLY_PXREAD) >= need || anyRefusal(got, MSG_TYPE_REPLY_PXREAD);
  });
  Ballot best = local.bal;
  *leftoverP = local.inp;
  int promises = 0;
  for (const PeerAnswer& a : answers) {
    AcceptorReply r;
    if (!decodeAnswer(a, MSG_TYPE_REPLY_PXREAD, &r)) continue;
    if (r.result == kPeerAhead && r.hasImage) {
      (void)replica_->adopt(r.image);
      return kPeerAhead;
    }
    if (r.result == kPeerRejected) {
      qcrLog(4, "phase1 %s seq %d: node %d refused (mbal %s, leader %d)", ballot.toString().c_str(),
             seq, a.peer, r.mbal.toString().c_str(), r.leaderId);
      return kPeerRejected;
    }
    if (r.result != kPeerOk) continue;
    ++promises;
    if (r.inp.kind != UpdateKind::None && r.bal > best) {
      best = r.bal;
      *leftoverP = r.inp;
    }
  }
  if (rule.disks) {
    if (disks.result == kPeerAhead || disks.result == kPeerRejected) {
      learnFromDisks(disks);
      return disks.result;
    }
    if (disks.inp.kind != UpdateKind::None && disks.bal > best) {
      best = disks.bal;
      *leftoverP = disks.inp;
    }
  }
  if (best == Ballot{}) *leftoverP = ProposedUpdate{};
  qcrLog(4, "phase1 %s seq %d: %d of %d promised", ballot.toString().c_str(), seq, promises + 1,
         static_cast<int>(n));
  if (promises < need || (rule.disks && disks.result != kPeerOk)) return E_NO_QUORUM;
  if (rule.disks) {
    waitOutLeases(wroteAt, committed);
    if (stop_) return E_NO_QUORUM;
  }
  return kPeerOk;
}

int Proposer::phase2(int32_t seq, const Ballot& ballot, const ProposedUpdate& upd,
                     int64_t sentMs) {
  double t = clock_.now();
  const CommittedState committed = replica_->skeleton();
  const std::vector<int32_t> before = members(committed);
  const size_t n = before.size();
  Rule rule;
  if (const int rc = ruleFor(committed, &rule); rc != 0) {
    flushHeldCommit();
    return rc;
  }
  if (rule.disks) {
    // The followers hear of the last commit now, not after the disks.
    flushHeldCommit();
    // The disks first, and the nodes only once a majority of them holds the
    // acceptance: a change that fails for want of the disks is then accepted
    // nowhere, unless some disks took it.
    PaxosFileData mine = replica_->fileData();
    if (mine.dblk.seq != seq || ballot < mine.dblk.mbal) return kPeerRejected;
    mine.dblk.mbal = ballot;
    mine.dblk.bal = ballot;
    mine.dblk.inp = upd;
    const DiskVerdict disks = diskStep(rule, &mine, seq, ballot);
    if (disks.result == kPeerAhead || disks.result == kPeerRejected) {
      learnFromDisks(disks);
      return kPeerRejected;
    }
    if (disks.result != kPeerOk) return E_NO_QUORUM;
    // The disks took it already, whatever its date: the nodes get it dated now.
    sentMs = -1;
  }
  AcceptMsg msg{{replica_->nodeId(), sentMs >= 0 ? sentMs : wallMs(), seq}, ballot, upd};
  // A held commit goes out with the acceptance, in one write to each follower.
  auto round = peers_->broadcastAfter(takeHeldCommit(),
                                      withCatchUp(MSG_TYPE_PXWRITE, encodeBody(msg), ballot),
                                      clock_.now() + options_.roundSeconds);
  times_.add(SynodPart::Send, clock_.now() - t);
  // This server accepts while the others do, so that its write overlaps theirs.
  t = clock_.now();
  const AcceptorReply local = replica_->accept(msg);
  times_.add(SynodPart::LeaderWrite, clock_.now() - t);
  t = clock_.now();
  if (local.result != kPeerOk) {
    qcrLog(4, "phase2 seq %d: own acceptance failed (%d)", seq + 1, local.result);
    if (local.result != kPeerNotReady) return kPeerRejected;
    // The followers may hold the acceptance: whoever leads next finds it in phase 1.
    noteWriteFailure();
    return E_NOT_ACTIVE;
  }
  const int need = rule.needPeers;
  const auto answers = round->wait([need](const std::vector<PeerAnswer>& got) {
    return countOk(got, MSG_TYPE_REPLY_PXWRITE) >= need ||
           anyRefusal(got, MSG_TYPE_REPLY_PXWRITE);
  });
  const int accepted = countOk(answers, MSG_TYPE_REPLY_PXWRITE);
  times_.add(SynodPart::Quorum, clock_.now() - t);
  t = clock_.now();
  if (accepted < need) {
    qcrLog(4, "phase2 seq %d: %d of %d accepted", seq + 1, accepted + 1, static_cast<int>(n));
    return anyRefusal(answers, MSG_TYPE_REPLY_PXWRITE) ? kPeerRejected : E_NO_QUORUM;
  }
  // A majority holds the acceptance on disk: the update is chosen.
  const int rc = replica_->commitAccepted(seq, ballot);
  if (rc != 0) return rc;
  // Values and file contents stay out of the trace at the default level: the
  // update's full text (a value in clear) only at the detail level.
  qcrLog(4, "committed seq %d: %s:%s", seq + 1, upd.uid.toString().c_str(),
         updateKindName(static_cast<int>(upd.kind)));
  if (qcrLogShown(6)) qcrLog(6, "committed seq %d: %s", seq + 1, upd.toString().c_str());
  if (upd.kind != UpdateKind::Config) {
    holdOrNotifyCommit(seq + 1, ballot);
  } else {
    // Members the change removed hear of it now: no later round reaches them, and
    // until they know they would still take changes and forward them.
    const auto notified = notifyCommitAnswered(seq + 1, ballot);
    std::vector<int32_t> leavers;
    const std::vector<int32_t> after = members(replica_->skeleton());
    for (int32_t id : before) {
      if (id != replica_->nodeId() && std::find(after.begin(), after.end(), id) == after.end()) {
        leavers.push_back(id);
      }
    }
    if (!leavers.empty()) {
      (void)notified->wait([&leavers](const std::vector<PeerAnswer>& got) {
        return std::all_of(leavers.begin(), leavers.end(), [&got](int32_t id) {
          return std::any_of(got.begin(), got.end(),
                             [id](const PeerAnswer& a) { return a.peer == id; });
        });
      });
    }
  }
  if (upd.kind == UpdateKind::Config ||
      ((upd.kind == UpdateKind::FilePut || upd.kind == UpdateKind::FileDelete) &&
       upd.number1 == kDisksFileObjId)) {
    // New members have promised nothing yet, new disks hold no promise: lead
    // again under the new configuration.
    std::lock_guard<std::mutex> lock(leadMutex_);
    established_ = false;
  }
  times_.add(SynodPart::Apply, clock_.now() - t);
  return 0;
}

std::shared_ptr<const OneWay> Proposer::commitMessage(int32_t seq, const Ballot& ballot) const {
  SyncMsg sync;
  sync.hdr = {replica_->nodeId(), wallMs(), seq};
  sync.ballot = ballot;
  return std::make_shared<const OneWay>(OneWay{MSG_TYPE_PXRDWR, encodeBody(sync)});
}

void Proposer::notifyCommit(const OneWay& message) {
  // Nobody needs these answers for the commit; the lease thread counts its own
  // rounds, and a follower that missed commits catches up on the next request.
  (void)peers_->broadcastOneWay(message.type, message.body, clock_.now() + options_.roundSeconds);
}

void Proposer::holdOrNotifyCommit(int32_t seq, const Ballot& ballot) {
  bool waiting;
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    waiting = !queue_.empty();
  }
  std::lock_guard<std::mutex> lock(heldMutex_);
  commitHeld_ = false;
  if (!waiting) {
    notifyCommit(*commitMessage(seq, ballot));
    return;
  }
  commitHeld_ = true;
  heldSeq_ = seq;
  heldBallot_ = ballot;
}

void Proposer::flushHeldCommit() {
  if (const auto message = takeHeldCommit()) notifyCommit(*message);
}

std::shared_ptr<const OneWay> Proposer::takeHeldCommit() {
  std::lock_guard<std::mutex> lock(heldMutex_);
  if (!commitHeld_) return nullptr;
  commitHeld_ = false;
  return commitMessage(heldSeq_, heldBallot_);
}

std::shared_ptr<Round> Proposer::notifyCommitAnswered(int32_t seq, const Ballot& ballot) {
  SyncMsg sync;
  sync.hdr = {replica_->nodeId(), wallMs(), seq};
  sync.ballot = ballot;
  return peers_->broadcast(withCatchUp(MSG_TYPE_PXRDWR, encodeBody(sync), ballot),
                           clock_.now() + options_.roundSeconds);
}

int Proposer::renewLease() {
  int32_t seq = 0;
  const CommittedState committed = replica_->skeleton(&seq);
  if (committed.leaderId != replica_->nodeId()) return E_NOT_LEADER;
  Rule rule;
  if (const int rc = ruleFor(committed, &rule); rc != 0) return rc;
  Ballot ballot;
  {
    std::lock_guard<std::mutex> lock(leadMutex_);
    if (!established_) return E_NOT_LEADER;
    ballot = ballot_;
  }
  // The lease counts from before the round went out: every follower that answers
  // starts its own lease view later than that.
  const double sentAt = clock_.now();
  SyncMsg sync;
  sync.hdr = {replica_->nodeId(), wallMs(), seq};
  sync.ballot = ballot;
  auto round = peers_->broadcast(withCatchUp(MSG_TYPE_PXRDWR, encodeBody(sync), ballot),
                                 sentAt + options_.roundSeconds);
  if (rule.disks) {
    // No block on a majority of the disks shows a higher ballot or a newer state:
    // whoever takes over later wrote its ballot after this look, and waits out
    // one lease before it acts (waitOutLeases).
    const DiskVerdict disks = diskStep(rule, nullptr, seq, ballot);
    if (disks.result == kPeerAhead || disks.result == kPeerRejected) {
      learnFromDisks(disks);
      std::lock_guard<std::mutex> lock(leadMutex_);
      established_ = false;
      return E_NOT_LEADER;
    }
    if (disks.result != kPeerOk) return E_NO_QUORUM;
  }
  const int need = rule.needPeers;
  const int32_t self = replica_->nodeId();
  // A follower that promised a higher ballot may help that proposer to a majority
  // although it is bound from now on: it does not count.
  auto bound = [self, ballot](const std::vector<PeerAnswer>& got) {
    int k = 0;
    for (const PeerAnswer& a : got) {
      AcceptorReply r;
      if (decodeAnswer(a, MSG_TYPE_REPLY_PXRDWR, &r) && r.result == kPeerOk && r.leaderId == self &&
          !(ballot < r.mbal)) {
        ++k;
      }
    }
    return k;
  };
  const auto answers = round->wait([&](const std::vector<PeerAnswer>& got) { return bound(got) >= need; });
  if (const int got = bound(answers); got < need) {
    qcrLog(4, "lease round at seq %d: %d of %d peers bound", seq, got, need);
    return E_NO_QUORUM;
  }
  // From here this server's acceptor is bound as well; one that promised a higher
  // ballot before may already help another proposer, so this ballot is spent.
  replica_->noteOwnLease(sentAt);
  std::lock_guard<std::mutex> lock(leadMutex_);
  if (ballot < replica_->promised()) {
    qcrLog(4, "lease round at seq %d: own acceptor promised %s", seq,
           replica_->promised().toString().c_str());
    established_ = false;
    return E_NOT_LEADER;
  }
  // A margin of a quarter lease covers the difference in clock rates.
  leaseEnd_ = sentAt + committed.lease * 0.75 / 1000.0;
  return 0;
}

int Proposer::becomeLeader() {
  const double until = clock_.now() + options_.leadSeconds;
  int rc = E_NO_QUORUM;
  while (!stop_ && clock_.now() < until) {
    const Ballot ballot = replica_->nextBallot();
    ProposedUpdate leftover;
    rc = phase1(ballot, &leftover);
    if (rc == kPeerAhead) return rc;  // the state moved on: the leader may have too
    if (rc == kPeerRejected) {
      backOff();
      continue;
    }
    if (rc != kPeerOk) return rc;
    {
      std::lock_guard<std::mutex> lock(leadMutex_);
      established_ = true;
      ballot_ = ballot;
    }
    if (leftover.kind != UpdateKind::None) {
      rc = phase2(replica_->seq(), ballot, leftover);
    }
    if (rc == 0 && replica_->leaderId() != replica_->nodeId()) {
      ProposedUpdate lu = makeLeaderChange(replica_->nodeId(), options_.leaseMs);
      lu.uid = replica_->newUid();
      rc = phase2(replica_->seq(), ballot, lu);
    }
    if (rc == 0) rc = renewLease();
    if (rc == 0) {
      qcrLog(1, "node %d leads with ballot %s at seq %d", replica_->nodeId(),
             ballot.toString().c_str(), replica_->seq());
      return 0;
    }
    std::lock_guard<std::mutex> lock(leadMutex_);
    established_ = false;
    if (rc != kPeerRejected) return rc == kPeerAhead ? E_NO_QUORUM : rc;
  }
  return rc == kPeerRejected || rc == kPeerAhead ? E_NO_QUORUM : rc;
}

int Proposer::lead(int32_t unreachable) {
  if (inWriteBackOff()) return E_NOT_ACTIVE;
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int rc = leadOnce(unreachable);
    if (rc != kPeerAhead) return rc;
  }
  return E_NO_QUORUM;
}

int Proposer::leadOnce(int32_t unreachable) {
  const int32_t self = replica_->nodeId();
  // The common case first, without a copy of the state: this server leads.
  if (leaseHeld()) return 0;
  const bool initialised = replica_->initialised();
  const CommittedState committed = replica_->skeleton();
  int rc = checkMember(initialised, committed);
  if (rc != 0) return rc;
  if (committed.leaderId == self) {
    bool established;
    {
      std::lock_guard<std::mutex> lock(leadMutex_);
      established = established_;
    }
    if (established && (leaseHeld() || renewLease() == 0)) return 0;
    return becomeLeader();
  }
  if (replica_->boundToLeader(self)) {
    if (committed.leaderId != unreachable) return E_NOT_LEADER;
    const double until = clock_.now() + committed.lease / 1000.0 + 0.5;
    while (!stop_ && replica_->boundToLeader(self) && clock_.now() < until) {
      // Another server took over meanwhile: the caller turns to it.
      if (replica_->leaderId() != unreachable) return E_NOT_LEADER;
      clock_.sleepUntil(clock_.now() + 0.05);
    }
  }
  return becomeLeader();
}

int Proposer::runChange(const Uid& uid, const UpdateBuilder& build,
                        const std::function<bool()>& wanted) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    int rc = lead();
    if (rc != 0) return rc;
    // Dated before the look at the client: held up after it, the proposal is too
    // old for the acceptors.
    const int64_t decidedMs = wallMs();
    if (wanted && !wanted()) {
      if (replica_->skeleton().includes(uid)) return 0;
      qcrLog(2, "runChange: change %s dropped, its client no longer waits for it",
             uid.toString().c_str());
      return ETIMEDOUT;
    }
    const double t = clock_.now();
    ProposedUpdate upd;
    int32_t seq = 0;
    bool included = false;
    rc = replica_->buildChange(uid, build, &seq, &upd, &included);
    times_.add(SynodPart::Build, clock_.now() - t);
    if (included) return 0;
    if (rc != 0) return rc;
    upd.uid = uid;
    Ballot ballot;
    {
      std::lock_guard<std::mutex> lock(leadMutex_);
      ballot = ballot_;
    }
    rc = phase2(seq, ballot, upd, decidedMs);
    if (rc == 0) return 0;
    {
      // Some acceptors may hold this update under this ballot: the synod must not
      // see another update under the same ballot. Lead again with a higher one,
      // whose phase 1 finds the update if it may have been chosen.
      std::lock_guard<std::mutex> lock(leadMutex_);
      established_ = false;
    }
    if (rc != kPeerRejected) return rc;
  }
  return E_NO_QUORUM;
}

int Proposer::askLeader(int32_t leader) {
  CatchUpMsg msg{replica_->nodeId(), wallMs(), replica_->seq()};
  auto shared = std::make_shared<const std::vector<uint8_t>>(encodeBody(msg));
  auto round = peers_->sendTo(
      leader,
      [shared](int32_t peer, Connection& conn) {
        PeerAnswer a{peer, conn.send(MSG_TYPE_PXINIT, *shared), {}};
        if (a.rc == 0) a.rc = conn.receive(&a.reply);
        return a;
      },
      clock_.now() + options_.roundSeconds);
  for (const PeerAnswer& a : round->wait([](const std::vector<PeerAnswer>& got) { return !got.empty(); })) {
    AcceptorReply r;
    if (!decodeAnswer(a, MSG_TYPE_REPLY_PXRDWR, &r)) continue;
    if (r.hasImage) (void)replica_->adopt(r.image);
    if (r.leaseHeld && replica_->seq() >= r.seq) return 0;
    qcrLog(4, "leader %d at seq %d answered without its lease (here seq %d)", leader, r.seq,
           replica_->seq());
  }
  return E_NO_LEADER_CONTACT;
}

int Proposer::readBarrier() {
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (leaseHeld()) return 0;
    const CommittedState committed = replica_->skeleton();
    int rc = checkMember(replica_->initialised(), committed);
    if (rc != 0) return rc;
    const int32_t leader = committed.leaderId;
    const int32_t self = replica_->nodeId();
    if (leader >= 0 && leader != self) {
      // The answer may have brought a configuration without this server.
      if (askLeader(leader) == 0) return checkMember(replica_->initialised(), replica_->skeleton());
      // The answer may have brought a newer state that names another leader:
      // ask that one before trying to lead.
      if (replica_->leaderId() != leader) continue;
    }
    std::lock_guard<std::mutex> lock(changeMutex_);
    rc = lead(leader);
    if (rc != E_NOT_LEADER) return rc;
    // Another server leads now (this one caught up meanwhile): ask it.
  }
  return E_NO_QUORUM;
}

AcceptorReply Proposer::catchUpReply(const CatchUpMsg& msg) {
  const bool leading = replica_->leaderId() == replica_->nodeId();
  bool held = leading && leaseHeld();
  if (leading && !held) {
    const int rc = renewLease();
    held = rc == 0;
    if (!held) qcrLog(4, "catch-up of node %d: lease not renewed (%d)", msg.from, rc);
  }
  AcceptorReply r;
  r.result = replica_->initialised() ? kPeerOk : kPeerNotReady;
  r.seq = replica_->seq();
  r.leaderId = replica_->leaderId();
  r.leaseHeld = held;
  if (msg.seq < r.seq) {
    r.hasImage = true;
    r.image = replica_->image();
    r.seq = r.image.seq;
  }
  return r;
}

// A change in the queue, shared by its caller and the change thread.
struct Proposer::Queued {
  explicit Queued(const Change& c) : change(c) {}
  const Change& change;  // the caller's: it waits until the change is done or dropped
  double queuedAt = 0;
  bool done = false;
  int rc = 0;
  std::condition_variable cv;  // guarded by queueMutex_
};

int Proposer::submit(const Change& change) {
  auto item = std::make_shared<Queued>(change);
  item->queuedAt = clock_.now();
  std::unique_lock<std::mutex> lock(queueMutex_);
  if (changesStopped_) return E_NOT_ACTIVE;
  if (queue_.size() >= kMaxQueued) return E_NOT_ACTIVE;
  queue_.push_back(item);
  if (queue_.size() == 1) {
    // The change thread waits only on an empty queue; woken once the lock is free.
    lock.unlock();
    queueCv_.notify_one();
    lock.lock();
  }
  // Waits in slices, so that a clock that stands still (a test's) and a stop
  // are noticed; a change is dropped from the queue after kQueueSeconds, but
  // once the change thread has it the caller waits for its end, which the
  // deadlines of leading and of each round bound.
  for (;;) {
    if (item->done) break;
    item->cv.wait_for(lock, std::chrono::milliseconds(50));
    if (item->done) continue;
    const auto it = std::find(queue_.begin(), queue_.end(), item);
    if (it == queue_.end()) continue;  // the change thread has it
    if (changesStopped_ || clock_.now() - item->queuedAt > kQueueSeconds) {
      queue_.erase(it);
      return changesStopped_ ? E_NOT_ACTIVE : ETIMEDOUT;
    }
  }
  return item->rc;
}

int Proposer::runQueued(Queued& item) {
  // A change whose client gave up while it waited behind others is not run: it
  // must not keep the changes after it waiting, for instance while this server
  // waits out the lease of a leader it could not reach.
  if (item.change.wanted && !item.change.wanted()) return ETIMEDOUT;
  const double t = clock_.now();
  const int rc = lead(item.change.unreachable);
  times_.add(SynodPart::Lead, clock_.now() - t);
  if (rc != 0) return rc;
  const Uid uid = replica_->newUid();
  if (item.change.announce) item.change.announce(uid);
  return runChange(uid, item.change.build, item.change.wanted);
}

size_t Proposer::queuedChanges() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return queue_.size();
}

void Proposer::changeLoop() {
  std::unique_lock<std::mutex> lock(queueMutex_);
  for (;;) {
    queueCv_.wait(lock, [this] { return changesStopped_ || !queue_.empty(); });
    if (changesStopped_) break;
    const std::shared_ptr<Queued> item = queue_.front();
    queue_.pop_front();
    lock.unlock();
    times_.add(SynodPart::Queue, clock_.now() - item->queuedAt);
    int rc;
    {
      std::lock_guard<std::mutex> change(changeMutex_);
      rc = runQueued(*item);
    }
    // The reply carries the state of now: encoded here, before the next synod's
    // acceptance (which writes the same state) holds the replica's lock while
    // it waits for the disk.
    (void)replica_->encodedState();
    // The next change's acceptance takes a held commit along; without one
    // coming at once (none waits, or this one ended before its synod), it goes
    // now.
    lock.lock();
    const bool next = rc == 0 && !queue_.empty();
    lock.unlock();
    if (!next) flushHeldCommit();
    lock.lock();
    item->rc = rc;
    item->done = true;
    // The caller is woken once the queue's lock is free: woken under it, it
    // would block on it at once and take this thread's CPU to do so.
    lock.unlock();
    item->cv.notify_one();
    lock.lock();
  }
  // Callers still queued see the stop and leave on their own.
  for (const auto& item : queue_) item->cv.notify_one();
}

void Proposer::start() {
  stop_ = false;
  leaseThread_ = std::thread([this] {
    armCrashHandlerInThread();
    nameThisThread("qcrd-lease");
    leaseLoop();
  });
  startChangeThread();
}

void Proposer::startChangeThread() {
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    changesStopped_ = false;
  }
  changeThread_ = std::thread([this] {
    armCrashHandlerInThread();
    nameThisThread("qcrd-change");
    changeLoop();
  });
}

void Proposer::stop() {
  stop_ = true;
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    changesStopped_ = true;
    queueCv_.notify_all();
  }
  if (changeThread_.joinable()) changeThread_.join();
  if (leaseThread_.joinable()) leaseThread_.join();
}

void Proposer::leaseLoop() {
  while (!stop_) {
    const int32_t lease = std::max(replica_->skeleton().lease, 400);
    const double next = clock_.now() + lease / 4000.0;
    bool leading;
    {
      std::lock_guard<std::mutex> lock(leadMutex_);
      leading = established_;
    }
    if (leading && replica_->leaderId() == replica_->nodeId()) (void)renewLease();
    while (!stop_ && clock_.now() < next) clock_.sleepUntil(std::min(next, clock_.now() + 0.05));
  }
}

}  // namespace qcr
