// A server's replica of the repository: its Paxos state (the dblock of the state
// file) and the acceptor's side of every synod, the names of the committed
// files, the uid numbering and this server's view of the leader's lease.
//
// Every method may be called from any thread: one mutex (the replica lock) guards
// all of it. Each promise, acceptance and adopted state is written to a state file
// copy and forced to disk before the method returns, so a reply built from its
// result may go out at once; when that write fails the state stays as it was. The
// one exception is a follower applying its own accepted copy of a decided update:
// the acceptance on disk already leads there, and the next write takes it along.
//
// A state image that a sync carries replaces this replica's state only under the
// rules of a decision: its seq lies above this replica's, and it comes from the
// proposer this replica follows, that is, the sync is not stale (MessageAges), its
// sender is another server that is a member of this replica's committed
// configuration, and its ballot is that sender's own and not below the ballot
// this replica promised. Any other image is refused (kPeerRejected) and changes
// nothing, not even the lease view. Images in the answers to this server's own
// requests (adopt) are taken as they come.
//
// Time: the lease view runs on this server's monotonic clock alone; the sender's
// wall clock time that messages carry only serves to tell their age (MessageAges).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "basic/clock.h"

#include "qcr/data/dblock.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/apply.h"
#include "qcr/server/message_age.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/state_store.h"

namespace qcr {

// Builds the update of a change against the committed state and file names it
// will apply to. Called under the replica lock: it must not call the replica.
using UpdateBuilder =
    std::function<int(const CommittedState& committed, const FileNames& names, ProposedUpdate* updP)>;

// What the replica holds, copied out.
struct ReplicaView {
  bool initialised = false;
  uint64_t clusterId = 0;
  int32_t seq = 0;
  CommittedState committed;
  FileNames names;
};

class Replica final {
 public:
  // clock outlives the replica.
  Replica(StateStore* store, int32_t nodeId, Clock& clock);

  // Start-up: loads the newer intact state file copy and raises the epoch (written
  // at once). 0 when a state was loaded; ENOENT when there is none (the server
  // then waits for init); 214 when no copy is intact.
  [[nodiscard]] int load();
  // Adopts the state of an init message: 0; 0 unchanged when already initialised
  // for the same cluster; 315 for another cluster. *adoptedP, when given, tells
  // whether this call initialised the replica.
  [[nodiscard]] int init(const InitRequest& req, bool* adoptedP = nullptr);

  int32_t nodeId() const { return nodeId_.load(); }
  // Node id settled after start (from the node list); the next state write
  // records it as the writer.
  void setNodeId(int32_t nodeId);
  bool initialised() const;
  uint64_t clusterId() const;
  int32_t seq() const;
  int32_t leaderId() const;
  // The highest ballot this replica promised.
  Ballot promised() const;
  // Counts the changes of the committed files or configuration, so that callers
  // can tell when the local files need a look.
  uint64_t fileEpoch() const;
  ReplicaView view() const;
  // The same, shared: one copy per change of the committed state, whoever asks
  // how often. Readers that look at values or files use this.
  std::shared_ptr<const ReplicaView> snapshot() const;
  // The seq and the committed state, encoded as a commit reply's body (and the
  // end of an error or query reply's body) carries them: made once per state,
  // shared by every reply until the state changes.
  std::shared_ptr<const std::vector<uint8_t>> encodedState() const;
  // The committed state without its values: what leading and the rules of a synod
  // look at (configuration, leader, lease, update records, files), cheap to copy
  // however many values the repository holds. *seqP, when given, gets the seq.
  CommittedState skeleton(int32_t* seqP = nullptr) const;
  // Under the replica lock: when the committed state includes uid already, sets
  // *includedP and returns 0; else builds the update with build against the
  // committed state and returns build's result, with *seqP the seq it was built at.
  [[nodiscard]] int buildChange(const Uid& uid, const UpdateBuilder& build, int32_t* seqP,
                                ProposedUpdate* updP, bool* includedP) const;
  StateImage image() const;
  // The whole state as the state file holds it (what this node writes into its
  // block on the tiebreaker disks).
  PaxosFileData fileData() const;
  // A ballot seen elsewhere (on a disk): the next ballot lies above it.
  void noteBallot(const Ballot& ballot);
  // Names learnt from the committed directory; known names are kept.
  void learnNames(const FileNames& names);

  // Acceptor side, for messages from peers and from this server alike. A peer's
  // message older than kMaxMessageAgeMs (MessageAges) is answered kPeerStale.
  AcceptorReply prepare(const PrepareMsg& msg);
  AcceptorReply accept(const AcceptMsg& msg);
  AcceptorReply sync(const SyncMsg& msg);

  // Proposer side: commits the update this replica accepted under ballot for
  // synod seq + 1, once a majority accepted it. 0, or kPeerRejected when this
  // replica holds no such acceptance (it moved on, or accepted another ballot).
  [[nodiscard]] int commitAccepted(int32_t seq, const Ballot& ballot);
  // Takes over a newer state; 0 (also when the image is not newer) or the write's error.
  [[nodiscard]] int adopt(const StateImage& image);
  // A new uid for a change started here: its number above every uid this server
  // handed out, every uid the state records, its horizon and the seq.
  Uid newUid();
  // A ballot above every ballot this replica has seen.
  Ballot nextBallot();

  // Lease view: whether a server other than from must be refused a promise,
  // because this replica heard from its committed leader less than a lease ago,
  // measured on this server's monotonic clock from when the message arrived (or
  // from the start, for a restarted server).
  bool boundToLeader(int32_t from) const;
  // This server, leading, renewed its lease with a round sent at sentAt (its
  // monotonic clock, seconds): its own acceptor is bound to it from then on, as
  // the followers that answered are.
  void noteOwnLease(double sentAt);

 private:
  int persist(const PaxosFileData& next);
  // Writes the dblock after a change of its ballots and acceptance only; on
  // failure the old ones are put back.
  int persistBallots(const Ballot& mbal, const Ballot& bal, const ProposedUpdate* inp);
  // The committed state, the file names or the seq changed: the next snapshot is new.
  void changedLocked();
  // The encoding of the committed state, made once per state.
  const std::vector<uint8_t>& committedBytesLocked() const;
  AcceptorReply baseReply() const;
  AcceptorReply openAcceptorReplyLocked(const PeerHeader& hdr, const Ballot& ballot);
  int32_t standingLocked(const PeerHeader& hdr);
  StateImage imageLocked() const;
  bool holdsAcceptanceLocked(int32_t seq, const Ballot& ballot) const;
  void applyAcceptedLocked();
  int adoptLocked(const StateImage& image);
  bool mayAdoptLocked(const SyncMsg& msg) const;
  void noteLeaderContact(int32_t from, double at);
  bool boundToLeaderLocked(int32_t from) const;

  mutable std::mutex mu_;
  StateStore* store_;
  Clock& clock_;
  // Read without the lock by every thread; written under it.
  std::atomic<int32_t> nodeId_;
  bool initialised_ = false;
  uint64_t clusterId_ = 0;
  PaxosFileData data_;
  FileNames names_;
  Ballot maxSeen_;
  int32_t lastUidSeq_ = 0;
  // When this replica last heard from its committed leader (monotonic seconds).
  double lastLeaderContact_;
  MessageAges ages_;
  uint64_t fileEpoch_ = 0;
  mutable std::shared_ptr<const ReplicaView> snapshot_;  // null: made on demand
  // The encoded seq and state, guarded by cacheMu_ (taken after mu_, or alone).
  mutable std::mutex cacheMu_;
  mutable std::shared_ptr<const std::vector<uint8_t>> encoded_;
  mutable std::shared_ptr<const std::vector<uint8_t>> committedBytes_;  // the same
  mutable size_t committedSize_ = 0;  // of the last committedBytes_
  // Copies of what is asked most, readable without the lock while a promise or
  // acceptance is being forced to disk under it; set by changedLocked.
  std::atomic<bool> initialisedNow_{false};
  std::atomic<uint64_t> clusterIdNow_{0};
  std::atomic<int32_t> seqNow_{0};
  std::atomic<int32_t> leaderNow_{-1};
  std::atomic<uint64_t> fileEpochNow_{0};
};

}  // namespace qcr
