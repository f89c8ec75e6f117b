#include "qcr/server/replica.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/result.h"

namespace qcr {

Replica::Replica(StateStore* store, int32_t nodeId, Clock& clock)
    : store_(store),
      clock_(clock),
      nodeId_(nodeId),
      lastLeaderContact_(-std::numeric_limits<double>::infinity()) {}

int Replica::load() {
  std::lock_guard<std::mutex> lock(mu_);
  PaxosFileData loaded;
  uint64_t cid = 0;
  int rc = store_->load(0, &loaded, &cid);
  if (rc != 0) return rc;
  loaded.epoch += 1;  // uids of this run never repeat those of an earlier one
  data_ = loaded;
  rc = store_->store(data_, cid);
  if (rc != 0) return rc;
  clusterId_ = cid;
  initialised_ = true;
  changedLocked();
  maxSeen_ = data_.dblk.mbal;
  // A restarted server acts as if it had just heard from the leader, so it cannot
  // help a rival past a lease it may have acknowledged before it stopped.
  lastLeaderContact_ = clock_.now();
  qcrLog(4, "state loaded: epoch %d seq %d mbal %s", data_.epoch, data_.dblk.seq,
         data_.dblk.mbal.toString().c_str());
  return 0;
}

int Replica::init(const InitRequest& req, bool* adoptedP) {
  std::lock_guard<std::mutex> lock(mu_);
  if (adoptedP != nullptr) *adoptedP = false;
  if (initialised_) return req.clusterId == clusterId_ ? E_OK : E_CLUSTER_MISMATCH;
  PaxosFileData next;
  next.epoch = 1;
  next.dblk = req.dblock;
  int rc = store_->store(next, req.clusterId);
  if (rc != 0) return rc;
  data_ = next;
  clusterId_ = req.clusterId;
  initialised_ = true;
  names_.clear();
  changedLocked();
  maxSeen_ = data_.dblk.mbal;
  if (adoptedP != nullptr) *adoptedP = true;
  qcrLog(4, "initialised: cluster %llu seq %d", static_cast<unsigned long long>(clusterId_),
         data_.dblk.seq);
  return 0;
}

void Replica::setNodeId(int32_t nodeId) {
  std::lock_guard<std::mutex> lock(mu_);
  nodeId_ = nodeId;
  store_->setNodeId(nodeId);
}

bool Replica::initialised() const { return initialisedNow_.load(); }

uint64_t Replica::clusterId() const { return clusterIdNow_.load(); }

int32_t Replica::seq() const { return seqNow_.load(); }

int32_t Replica::leaderId() const { return leaderNow_.load(); }

void Replica::changedLocked() {
  snapshot_.reset();
  committedBytes_.reset();
  {
    std::lock_guard<std::mutex> cache(cacheMu_);
    encoded_.reset();
  }
  initialisedNow_ = initialised_;
  clusterIdNow_ = clusterId_;
  seqNow_ = data_.dblk.seq;
  leaderNow_ = data_.dblk.committed.leaderId;
  fileEpochNow_ = fileEpoch_;
}

const std::vector<uint8_t>& Replica::committedBytesLocked() const {
  if (!committedBytes_) {
    // One change moves the size a little: the last size and some room for it.
    committedBytes_ = std::make_shared<const std::vector<uint8_t>>(
        data_.dblk.committed.encode(committedSize_ + 256));
    committedSize_ = committedBytes_->size();
  }
  return *committedBytes_;
}

Ballot Replica::promised() const {
  std::lock_guard<std::mutex> lock(mu_);
  return data_.dblk.mbal;
}

ReplicaView Replica::view() const { return *snapshot(); }

std::shared_ptr<const ReplicaView> Replica::snapshot() const {
  std::lock_guard<std::mutex> lock(mu_);
  if (!snapshot_) {
    snapshot_ = std::make_shared<const ReplicaView>(
        ReplicaView{initialised_, clusterId_, data_.dblk.seq, data_.dblk.committed, names_});
  }
  return snapshot_;
}

std::shared_ptr<const std::vector<uint8_t>> Replica::encodedState() const {
  {
    // Without the replica's lock while the encoding is current: a promise or an
    // acceptance may hold that lock while it waits for the disk.
    std::lock_guard<std::mutex> cache(cacheMu_);
    if (encoded_) return encoded_;
  }
  std::lock_guard<std::mutex> lock(mu_);
  const int32_t seq = data_.dblk.seq;
  const std::vector<uint8_t>& committed = committedBytesLocked();
  std::vector<uint8_t> bytes(static_cast<size_t>(sizeVarUInt(seq)) + committed.size());
  uint8_t* p = putVarUInt(bytes.data(), seq);
  if (!committed.empty()) memcpy(p, committed.data(), committed.size());
  auto encoded = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
  std::lock_guard<std::mutex> cache(cacheMu_);
  encoded_ = encoded;
  return encoded;
}

CommittedState Replica::skeleton(int32_t* seqP) const {
  std::lock_guard<std::mutex> lock(mu_);
  const CommittedState& c = data_.dblk.committed;
  CommittedState s;
  s.config = c.config;
  s.configVersion = c.configVersion;
  s.leaderId = c.leaderId;
  s.lease = c.lease;
  s.leaderVersion = c.leaderVersion;
  s.horizon = c.horizon;
  s.updates = c.updates;
  s.maxDeletedValueVersion = c.maxDeletedValueVersion;
  s.files = c.files;
  s.maxDeletedFileVersion = c.maxDeletedFileVersion;
  if (seqP != nullptr) *seqP = data_.dblk.seq;
  return s;
}

int Replica::buildChange(const Uid& uid, const UpdateBuilder& build, int32_t* seqP,
                         ProposedUpdate* updP, bool* includedP) const {
  std::lock_guard<std::mutex> lock(mu_);
  *seqP = data_.dblk.seq;
  *includedP = data_.dblk.committed.includes(uid);
  return *includedP ? 0 : build(data_.dblk.committed, names_, updP);
}

StateImage Replica::image() const {
  std::lock_guard<std::mutex> lock(mu_);
  return imageLocked();
}

PaxosFileData Replica::fileData() const {
  std::lock_guard<std::mutex> lock(mu_);
  return data_;
}

void Replica::noteBallot(const Ballot& ballot) {
  std::lock_guard<std::mutex> lock(mu_);
  maxSeen_ = std::max(maxSeen_, ballot);
}

StateImage Replica::imageLocked() const {
  return {data_.dblk.seq, data_.dblk.committed, fileListOf(data_.dblk.committed, names_)};
}

void Replica::learnNames(const FileNames& names) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& [objId, name] : names) {
    if (names_.emplace(objId, name).second) changedLocked();
  }
}

int Replica::persist(const PaxosFileData& next) {
  const int rc = store_->store(next, clusterId_);
  if (rc == 0) data_ = next;
  return rc;
}

int Replica::persistBallots(const Ballot& mbal, const Ballot& bal, const ProposedUpdate* inp) {
  PaxosDblockSummary& d = data_.dblk;
  const Ballot oldMbal = d.mbal, oldBal = d.bal;
  ProposedUpdate oldInp;
  d.mbal = mbal;
  d.bal = bal;
  if (inp != nullptr) {
    oldInp = std::move(d.inp);
    d.inp = *inp;
  }
  const int rc = store_->store(data_, clusterId_, &committedBytesLocked());
  if (rc != 0) {
    d.mbal = oldMbal;
    d.bal = oldBal;
    if (inp != nullptr) d.inp = std::move(oldInp);
  }
  return rc;
}

AcceptorReply Replica::baseReply() const {
  AcceptorReply r;
  r.seq = data_.dblk.seq;
  r.leaderId = data_.dblk.committed.leaderId;
  r.mbal = data_.dblk.mbal;
  return r;
}

void Replica::noteLeaderContact(int32_t from, double at) {
  if (from == data_.dblk.committed.leaderId) lastLeaderContact_ = std::max(lastLeaderContact_, at);
}

void Replica::noteOwnLease(double sentAt) {
  std::lock_guard<std::mutex> lock(mu_);
  noteLeaderContact(nodeId_, sentAt);
}

bool Replica::boundToLeader(int32_t from) const {
  std::lock_guard<std::mutex> lock(mu_);
  return boundToLeaderLocked(from);
}

bool Replica::boundToLeaderLocked(int32_t from) const {
  const CommittedState& c = data_.dblk.committed;
  if (c.leaderId < 0 || c.leaderId == from) return false;
  return (clock_.now() - lastLeaderContact_) * 1000.0 < c.lease;
}

uint64_t Replica::fileEpoch() const { return fileEpochNow_.load(); }

namespace {

bool filesChanged(const CommittedState& a, const CommittedState& b) {
  return a.files != b.files || a.config != b.config;
}

}  // namespace

// Where a message for synod seq + 1 meets this replica: ok, or the reason not.
// A peer's message is judged by its age (MessageAges); this server's own is dated
// by the same wall clock, so a proposal whose proposer was held up between dating
// it and accepting it here is as stale for its own acceptor as for the others.
int32_t Replica::standingLocked(const PeerHeader& hdr) {
  if (!initialised_) return kPeerNotReady;
  const int64_t age =
      hdr.from == nodeId_
          ? static_cast<int64_t>(clock_.wallNow() * 1000.0) - hdr.sentMs
          : ages_.age(hdr.from, hdr.sentMs, static_cast<int64_t>(clock_.now() * 1000.0),
                      kMaxMessageAgeMs);
  if (age > kMaxMessageAgeMs) return kPeerStale;
  if (hdr.seq < data_.dblk.seq) return kPeerAhead;
  if (hdr.seq > data_.dblk.seq) return kPeerBehind;
  return kPeerOk;
}

// The common start of prepare and accept: note the ballot, and tell where the
// sender stands against this replica (with the state when this one is ahead).
AcceptorReply Replica::openAcceptorReplyLocked(const PeerHeader& hdr, const Ballot& ballot) {
  maxSeen_ = std::max(maxSeen_, ballot);
  AcceptorReply r = baseReply();
  r.result = standingLocked(hdr);
  if (r.result == kPeerAhead) {
    r.hasImage = true;
    r.image = imageLocked();
  }
  return r;
}

AcceptorReply Replica::prepare(const PrepareMsg& msg) {
  std::lock_guard<std::mutex> lock(mu_);
  AcceptorReply r = openAcceptorReplyLocked(msg.hdr, msg.ballot);
  if (r.result != kPeerOk) return r;
  // An equal ballot is its proposer asking again: promising it twice is harmless.
  if (msg.ballot < data_.dblk.mbal || boundToLeaderLocked(msg.hdr.from)) {
    r.result = kPeerRejected;
    return r;
  }
  if (msg.ballot != data_.dblk.mbal) {
    if (persistBallots(msg.ballot, data_.dblk.bal, nullptr) != 0) {
      r.result = kPeerNotReady;
      return r;
    }
  }
  noteLeaderContact(msg.hdr.from, clock_.now());
  r.mbal = data_.dblk.mbal;
  r.bal = data_.dblk.bal;
  r.inp = data_.dblk.inp;
  return r;
}

AcceptorReply Replica::accept(const AcceptMsg& msg) {
  std::lock_guard<std::mutex> lock(mu_);
  AcceptorReply r = openAcceptorReplyLocked(msg.hdr, msg.ballot);
  if (r.result != kPeerOk) return r;
  // One ballot proposes one update per synod: a second one under the same ballot
  // is a proposer's fault, refused rather than let it replace the first.
  const bool second = msg.ballot == data_.dblk.bal && !(msg.update == data_.dblk.inp);
  if (msg.ballot < data_.dblk.mbal || second) {
    if (second) qcrLog(1, "accept: a second update under ballot %s refused", msg.ballot.toString().c_str());
    r.result = kPeerRejected;
    return r;
  }
  if (persistBallots(msg.ballot, msg.ballot, &msg.update) != 0) {
    r.result = kPeerNotReady;
    return r;
  }
  noteLeaderContact(msg.hdr.from, clock_.now());
  r.mbal = msg.ballot;
  return r;
}

AcceptorReply Replica::sync(const SyncMsg& msg) {
  std::lock_guard<std::mutex> lock(mu_);
  maxSeen_ = std::max(maxSeen_, msg.ballot);
  AcceptorReply r = baseReply();
  r.result = standingLocked(msg.hdr);
  if (r.result == kPeerNotReady || r.result == kPeerStale) return r;
  if (msg.hasImage && msg.image.seq > data_.dblk.seq) {
    if (!mayAdoptLocked(msg)) {
      qcrLog(1, "sync: state at seq %d from node %d under %s refused (promised %s)",
             msg.image.seq, msg.hdr.from, msg.ballot.toString().c_str(),
             data_.dblk.mbal.toString().c_str());
      r.result = kPeerRejected;
      return r;
    }
    if (adoptLocked(msg.image) != 0) {
      r.result = kPeerNotReady;
      return r;
    }
  } else if (holdsAcceptanceLocked(msg.hdr.seq - 1, msg.ballot)) {
    applyAcceptedLocked();
  }
  noteLeaderContact(msg.hdr.from, clock_.now());
  r = baseReply();
  const int32_t seq = data_.dblk.seq;
  r.result = seq < msg.hdr.seq ? kPeerBehind : seq > msg.hdr.seq ? kPeerAhead : kPeerOk;
  if (r.result == kPeerAhead) {
    r.hasImage = true;
    r.image = imageLocked();
  }
  return r;
}

// Staleness is checked before (standingLocked).
bool Replica::mayAdoptLocked(const SyncMsg& msg) const {
  const int32_t from = msg.hdr.from;
  if (from == nodeId_ || msg.ballot.node != from || msg.ballot < data_.dblk.mbal) return false;
  const auto& members = data_.dblk.committed.config.nodes;
  return std::any_of(members.begin(), members.end(), [from](const ConfigNodeEntry& n) {
    return n.nodeId == from && n.diskSlot >= 0;
  });
}

bool Replica::holdsAcceptanceLocked(int32_t seq, const Ballot& ballot) const {
  const PaxosDblockSummary& d = data_.dblk;
  return seq == d.seq && d.bal == ballot && d.inp.kind != UpdateKind::None;
}

// The update accepted for the next synod was decided: apply this replica's own
// copy. Not written now: the acceptance on disk already leads back here, and the
// next promise or acceptance writes the commit along.
void Replica::applyAcceptedLocked() {
  PaxosDblockSummary& d = data_.dblk;
  const UpdateKind kind = d.inp.kind;
  applyUpdate(d.inp, &d.committed, &names_);
  d.seq += 1;
  d.bal = Ballot{};
  d.inp = ProposedUpdate{};
  if (kind == UpdateKind::FilePut || kind == UpdateKind::FileDelete || kind == UpdateKind::Config) {
    ++fileEpoch_;
  }
  changedLocked();
}

int Replica::commitAccepted(int32_t seq, const Ballot& ballot) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!holdsAcceptanceLocked(seq, ballot)) return kPeerRejected;
  applyAcceptedLocked();
  return 0;
}

int Replica::adopt(const StateImage& image) {
  std::lock_guard<std::mutex> lock(mu_);
  return image.seq <= data_.dblk.seq ? 0 : adoptLocked(image);
}

int Replica::adoptLocked(const StateImage& image) {
  PaxosFileData next = data_;
  next.dblk.seq = image.seq;
  next.dblk.committed = image.state;
  next.dblk.bal = Ballot{};
  next.dblk.inp = ProposedUpdate{};
  const bool changed = filesChanged(data_.dblk.committed, next.dblk.committed);
  const int rc = persist(next);
  if (rc != 0) return rc;
  if (changed) ++fileEpoch_;
  for (const FileListEntry& e : image.files) names_[e.objId] = e.name;
  changedLocked();
  qcrLog(4, "adopted state at seq %d", image.seq);
  return 0;
}

Uid Replica::newUid() {
  std::lock_guard<std::mutex> lock(mu_);
  // An update counts as applied when its number is at or below the horizon of
  // discarded records, whatever its server: so a new number lies above every
  // recorded one (and the horizon), not only above this server's last.
  const CommittedState& c = data_.dblk.committed;
  int32_t floor = std::max(data_.dblk.seq, c.horizon);
  for (const auto& [key, seq] : c.updates) floor = std::max(floor, seq);
  lastUidSeq_ = std::max(lastUidSeq_, floor) + 1;
  return Uid{nodeId_, data_.epoch, lastUidSeq_};
}

Ballot Replica::nextBallot() {
  std::lock_guard<std::mutex> lock(mu_);
  Ballot b{std::max(maxSeen_.number, data_.dblk.mbal.number) + 1, nodeId_};
  maxSeen_ = b;
  return b;
}

}  // namespace qcr
