// Synods through tiebreaker disks. Each quorum node owns one block on every disk
// (its Paxos slot) and writes there its own replica state: its promise, its
// accepted ballot and update, its committed state. A proposer's step on one disk
// writes its block and then reads every other member's block there; a block that
// shows a higher ballot ends the step (someone started a higher synod), a block at
// a higher seq is a newer committed state, and the accepted updates of blocks at
// the proposer's seq are candidates for the synod. A step that went through on a
// majority of the disks, seeing no higher ballot, counts as a majority of
// acceptors: any two such majorities share a disk, and on that disk the later
// writer reads what the earlier one wrote.
//
// The disk I/O itself runs on one worker thread per disk, so that a hung shared
// file system delays a synod by its deadline only; a disk whose worker has a few
// steps queued already (it is stuck) answers at once as not answering.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "basic/clock.h"
#include "qcr/data/dblock.h"
#include "qcr/data/node_list.h"
#include "qcr/data/state_file.h"

namespace qcr {

// Block I/O on the disks; replaceable in tests. Any thread.
class DiskAccess {
 public:
  virtual ~DiskAccess() = default;
  // 0, or the error (the disk then counts as not answering).
  [[nodiscard]] virtual int write(const std::string& disk, int slot, const PaxosFileData& data) = 0;
  // 0; ENOENT for a block never written; another error.
  [[nodiscard]] virtual int read(const std::string& disk, int slot, PaxosFileData* dataP) = 0;
};

// The disk files of the shared disk layer, for one cluster and writer. A block of
// another cluster reads as an error (315), so that a disk file reused by another
// cluster never feeds this one's synods.
class FileDiskAccess final : public DiskAccess {
 public:
  explicit FileDiskAccess(StateFileOwner owner) : owner_(owner) {}
  int write(const std::string& disk, int slot, const PaxosFileData& data) override;
  int read(const std::string& disk, int slot, PaxosFileData* dataP) override;

 private:
  const StateFileOwner owner_;
};

// What one disk gave back from a step: rc 0 when the write (if any) and every
// read went through, and the blocks read by slot (those never written absent).
struct DiskAnswer {
  int rc = 0;
  std::map<int, PaxosFileData> blocks;
};

// One step on one disk: writes mine into slot (unless mine is null: a read-only
// look), then reads the blocks of others.
DiskAnswer exchangeDisk(DiskAccess& io, const std::string& disk, int slot,
                        const PaxosFileData* mine, const std::vector<int>& others);

// What the disks say to a proposer of ballot for synod seq + 1.
struct DiskVerdict {
  // kPeerOk: a majority of the disks went through; kPeerRejected: a block holds a
  // higher ballot (highest); kPeerAhead: a block holds a newer committed state
  // (newest); E_NO_QUORUM: fewer than a majority answered.
  int result = 0;
  int answered = 0;
  Ballot highest;
  PaxosFileData newest;
  // The update accepted under the highest ballot among the blocks at seq (kind
  // None when there is none).
  Ballot bal;
  ProposedUpdate inp;
};

// Judges the answers of all diskCount disks. A newer state wins over a higher
// ballot (it is taken over first); both count from any disk that answered.
DiskVerdict judgeDisks(const std::vector<DiskAnswer>& answers, size_t diskCount, int32_t seq,
                       const Ballot& ballot);

// Whether the synod after committed runs through the disks: the configuration
// names disks and the committed state holds the disk list that maps their ids.
// Every server that holds the same committed state answers alike.
bool usesDisks(const CommittedState& committed);

// The rule of the synod after a committed state, for node self.
struct DiskRule {
  std::vector<std::string> paths;  // one per configured disk id; "" for an id not listed
  int slot = -1;                   // self's block
  std::vector<int> others;         // the other members' blocks
  int minNodes = 1;                // nodes that must promise or accept, self included
};
// The rule from the committed state and the committed disk list. 0, or
// E_NOT_ACTIVE when self holds no slot.
[[nodiscard]] int diskRuleOf(const CommittedState& committed, int32_t self, const DiskList& list,
                             DiskRule* ruleP);

// The worker threads of the disks. run() may be called from several threads.
class DiskWorkers final {
 public:
  // clock (deadlines) outlives the workers.
  explicit DiskWorkers(Clock& clock);
  // Workers stuck in I/O are left to finish on their own; none is waited for.
  ~DiskWorkers();
  DiskWorkers(const DiskWorkers&) = delete;
  DiskWorkers& operator=(const DiskWorkers&) = delete;

  using Job = std::function<DiskAnswer(const std::string& disk)>;
  // Runs job on every disk at once, each on its disk's worker after the steps
  // queued before it, and returns the answers in the order of disks once all are
  // in or deadline (seconds on clock) passed; a disk that did not answer in time,
  // or whose queue is full, answers ETIMEDOUT. A step still queued at its
  // deadline is dropped. job must own what it uses: a stuck worker may run it
  // after this call returned.
  std::vector<DiskAnswer> run(const std::vector<std::string>& disks, const Job& job,
                              double deadline);

 private:
  struct Worker;
  struct Collector;
  std::shared_ptr<Worker> workerFor(const std::string& disk);

  Clock& clock_;
  std::mutex mu_;
  std::map<std::string, std::shared_ptr<Worker>> workers_;
};

}  // namespace qcr
