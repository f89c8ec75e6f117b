// The proposer: decides changes in synods, leads, and keeps the leader's lease.
//
// One change at a time runs on a server: callers hold changeLock() from the first
// step of a change (uid, versions) to its commit, so that uids, object ids and
// versions are handed out in commit order. Value and configuration changes are
// handed to the change thread (submit), which runs them one after the other in
// the order they came, so that their callers do not contend for the lock and the
// next change's acceptance goes out as soon as the one before is chosen. A file
// upload arrives before: its change is planned once the lock is held. Reads need
// not hold it, except to take over the lead (readBarrier does that itself).
//
// The commit of a synod reaches the followers in a message whose answer nobody
// waits for (PeerRounds::broadcastOneWay): the next acceptance request follows it
// on the same connection at once.
//
// Time: the lease and every time-out run on this server's monotonic clock; the
// wall clock only fills the sent time of messages. The leader counts its lease
// from before it sent the round that renewed it.
//
// A server that cannot write its state (a full or failing disk) cannot promise or
// accept, so it must not lead: when its own acceptor's write fails, it gives up
// the lead and its lease at once and stays out of the lead for a back-off time,
// answering 808 so that clients turn to another server; its followers' leases run
// out, as it renews none, and one of them takes over. After the back-off the next
// attempt to lead probes the disk with its own promise, before it asks anyone.
//
// Results: 0; 808 when this server cannot run a synod (not initialised, not a
// quorum node, its state cannot be written); 809 without a majority; 815
// (E_NOT_LEADER) when another server leads under a live lease (the caller
// forwards to it); a builder's refusal.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "basic/clock.h"
#include "qcr/server/disk_paxos.h"
#include "qcr/server/peers.h"
#include "qcr/server/replica.h"
#include "qcr/server/synod_times.h"

namespace qcr {

struct ProposerOptions {
  int32_t leaseMs = 3000;  // the lease a new leader commits
  double roundSeconds = 1.5;  // how long one round waits for its answers
  double leadSeconds = 4.0;   // how long taking the lead may try
  // How long a server whose state could not be written stays out of the lead.
  double writeBackOffSeconds = 10.0;
};

// The committed disk list that maps the disk ids of committed: 0, or an error
// when this server cannot read that version of it.
using DiskListSource = std::function<int(const CommittedState& committed, DiskList* listP)>;

class Proposer final {
 public:
  // replica, peers and clock outlive the proposer.
  Proposer(Replica* replica, PeerRounds* peers, ProposerOptions options, Clock& clock);
  ~Proposer();

  std::mutex& changeLock() { return changeMutex_; }

  // A change for the change thread.
  struct Change {
    UpdateBuilder build;
    // As for runChange.
    std::function<bool()> wanted;
    // Gets the uid drawn for the change, for the caller to tell its client with
    // the result. Runs on the change thread right before the change is proposed
    // (the caller waits in submit meanwhile), so it must be quick.
    std::function<void(const Uid&)> announce;
    // The leader that the caller could not reach (lead).
    int32_t unreachable = -1;
  };
  // Queues change behind the changes before it and waits until the change thread
  // ran it: leads (815 when another server leads: the caller forwards), gives
  // the change a new uid, which change.announce tells, and runs it (runChange).
  // The result is the first failure of these, or 0. A change still queued when the server stops,
  // or after kQueueSeconds, is not run: 808 or ETIMEDOUT.
  [[nodiscard]] int submit(const Change& change);
  static constexpr double kQueueSeconds = 30.0;
  static constexpr size_t kMaxQueued = 1024;
  // Changes waiting for the change thread now (not the one it runs).
  size_t queuedChanges();

  // Where the time of the changes went (qcrd --synod-times).
  SynodTimes& times() { return times_; }

  // With changeLock held: leads (taking the lead when no live leader exists),
  // builds the update with uid and decides it. An attempt that seemed to fail may
  // still have been decided (taking the lead again finds it): once the state
  // records uid, the change is done and nothing more is built.
  // wanted, when given, is asked after every lead and before every build: once it
  // says no (the client is gone, or the request is older than a client waits for
  // its answer), nothing more of the change is proposed and the result is
  // ETIMEDOUT. A change is thus never decided long after its client gave up and
  // perhaps sent newer ones.
  [[nodiscard]] int runChange(const Uid& uid, const UpdateBuilder& build,
                              const std::function<bool()>& wanted = {});
  // With changeLock held: makes sure this server leads. When server unreachable
  // leads (the caller could not reach it), waits until its lease expired in this
  // server's view and takes over; when any other server leads under a live lease,
  // returns 815.
  [[nodiscard]] int lead(int32_t unreachable = -1);

  // Makes this server's state current before a read: the leader under its lease
  // is current; a follower asks the leader and catches up; when no leader answers,
  // this server takes the lead. 0, or 808/809.
  [[nodiscard]] int readBarrier();
  // Whether this server leads and holds the lease now.
  bool leaseHeld() const;
  // This server could not write its state or a received file: it stops leading
  // and stays out of the lead for the back-off time. Any thread.
  void noteWriteFailure();
  // Leader side of a follower's catch-up request: renews the lease when needed.
  AcceptorReply catchUpReply(const CatchUpMsg& msg);

  // The lease thread renews the lease every quarter lease while this server leads.
  // stop() also cuts short the attempts of other threads to take the lead, so
  // that a stopping server does not wait for them.
  void start();
  void stop();
  // The change thread alone, which start() starts too (tests whose clock only
  // moves when asked run changes without the lease thread).
  void startChangeThread();

  // The quorum members of the committed configuration.
  static std::vector<int32_t> members(const CommittedState& state);
  // How many other quorum nodes must take part (promise, accept, hold a pushed
  // file) in the synod after state: a majority of the members without this one;
  // with disks, minNodes less this one.
  static int peersNeeded(const CommittedState& state);
  // Where the disk list comes from; set before start().
  void setDiskListSource(DiskListSource source) { diskList_ = std::move(source); }

 private:
  // How the synod after a committed state decides.
  struct Rule {
    bool disks = false;
    int needPeers = 0;
    DiskRule disk;
  };
  int ruleFor(const CommittedState& committed, Rule* ruleP) const;
  // One step on every disk of rule: writes mine (unless null), reads the others.
  DiskVerdict diskStep(const Rule& rule, const PaxosFileData* mine, int32_t seq,
                       const Ballot& ballot);
  // Takes over what the disks showed: a newer state, or a higher ballot.
  void learnFromDisks(const DiskVerdict& verdict);
  void waitOutLeases(double since, const CommittedState& committed);
  int leadOnce(int32_t unreachable);
  int becomeLeader();
  int phase1(const Ballot& ballot, ProposedUpdate* leftoverP);
  // sentMs (wall clock, ms), when given, dates the acceptance requests: a change
  // dated when its proposal was decided on reaches no acceptor once the proposer
  // was held up longer than a message may be old.
  int phase2(int32_t seq, const Ballot& ballot, const ProposedUpdate& upd, int64_t sentMs = -1);
  int renewLease();
  int checkMember(bool initialised, const CommittedState& committed) const;
  struct Queued;
  void changeLoop();
  int runQueued(Queued& item);
  int askLeader(int32_t leader);
  // The job that sends type with body and, to a peer behind, this server's state
  // under ballot (the ballot of the round: peers adopt only their proposer's).
  PeerJob withCatchUp(int type, std::vector<uint8_t> body, const Ballot& ballot) const;
  // The message that tells the peers that synod seq was decided under ballot.
  std::shared_ptr<const OneWay> commitMessage(int32_t seq, const Ballot& ballot) const;
  // Sends a commit message to the peers without waiting for their answers.
  void notifyCommit(const OneWay& message);
  // notifyCommit now, or, while more changes wait, along with the next
  // acceptance: the peers' workers then send both at one wake-up and a
  // follower reads both at one.
  void holdOrNotifyCommit(int32_t seq, const Ballot& ballot);
  // Sends the commit held back, if any.
  void flushHeldCommit();
  // The commit held back, if any, taken to go out with the next acceptance.
  std::shared_ptr<const OneWay> takeHeldCommit();
  // The same as a round whose answers come in as they arrive (a peer behind gets
  // the state).
  std::shared_ptr<Round> notifyCommitAnswered(int32_t seq, const Ballot& ballot);
  void leaseLoop();
  void backOff();
  bool inWriteBackOff() const;
  int64_t wallMs() const;

  Replica* replica_;
  PeerRounds* peers_;
  const ProposerOptions options_;
  Clock& clock_;
  std::mutex changeMutex_;
  // Leadership, guarded by leadMutex_.
  mutable std::mutex leadMutex_;
  bool established_ = false;  // ballot_ is promised by a majority
  Ballot ballot_;
  double leaseEnd_ = 0;  // this server's lease as leader ends (monotonic seconds)
  double writeBackOffEnd_ = 0;  // no lead before then: the state could not be written
  std::atomic<bool> stop_{false};
  std::thread leaseThread_;
  // The changes waiting for the change thread, guarded by queueMutex_.
  std::mutex queueMutex_;
  std::condition_variable queueCv_;
  std::deque<std::shared_ptr<Queued>> queue_;
  bool changesStopped_ = true;
  std::thread changeThread_;
  // A commit whose message waits for the next acceptance, guarded by heldMutex_.
  std::mutex heldMutex_;
  bool commitHeld_ = false;
  int32_t heldSeq_ = 0;
  Ballot heldBallot_;
  SynodTimes times_;
  DiskListSource diskList_;
  DiskWorkers disks_;
};

}  // namespace qcr
