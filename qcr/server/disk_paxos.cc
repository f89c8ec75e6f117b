#include "qcr/server/disk_paxos.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <thread>

#include "basic/background.h"
#include "basic/crash.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_names.h"
#include "qcr/data/paxos_config.h"
#include "qcr/data/shared_disks.h"
#include "qcr/server/peer_bodies.h"

namespace qcr {

namespace {

// The longest single wait for the disks: a clock that another thread moves (a
// test's) is looked at again this often.
constexpr double kDiskWaitSlice = 0.05;
// Steps queued for one disk at most; more answer at once as not answering.
constexpr size_t kMaxQueuedSteps = 4;

int majorityOf(size_t n) { return static_cast<int>(n / 2 + 1); }

}  // namespace

int FileDiskAccess::write(const std::string& disk, int slot, const PaxosFileData& data) {
  return writeDiskBlock(disk, slot, data, owner_, false);
}

int FileDiskAccess::read(const std::string& disk, int slot, PaxosFileData* dataP) {
  // Only a disk in place answers: not a missing one (ENODEV, since ENOENT from a
  // read means a block never written), not a directory or a link in its place.
  if (const int check = checkDiskFile(disk); check != 0) return check == ENOENT ? ENODEV : check;
  PaxosFileHeader header;
  const int rc = readDiskBlock(disk, slot, &header, dataP);
  if (rc != 0) return rc;
  if (header.cid != owner_.clusterId) {
    qcrLog(1, "disk '%s' block %d belongs to cluster %llu", disk.c_str(), slot,
           static_cast<unsigned long long>(header.cid));
    return E_CLUSTER_MISMATCH;
  }
  return 0;
}

DiskAnswer exchangeDisk(DiskAccess& io, const std::string& disk, int slot,
                        const PaxosFileData* mine, const std::vector<int>& others) {
  DiskAnswer a;
  if (disk.empty()) {
    a.rc = ENOENT;  // a configured disk id that the disk list does not name
    return a;
  }
  if (mine != nullptr) a.rc = io.write(disk, slot, *mine);
  for (size_t i = 0; a.rc == 0 && i < others.size(); ++i) {
    PaxosFileData block;
    const int rc = io.read(disk, others[i], &block);
    if (rc == 0) {
      a.blocks.emplace(others[i], std::move(block));
    } else if (rc != ENOENT) {
      a.rc = rc;
    }
  }
  if (a.rc != 0) a.blocks.clear();
  return a;
}

DiskVerdict judgeDisks(const std::vector<DiskAnswer>& answers, size_t diskCount, int32_t seq,
                       const Ballot& ballot) {
  DiskVerdict v;
  bool higher = false;
  bool newer = false;
  for (const DiskAnswer& a : answers) {
    if (a.rc != 0) continue;
    ++v.answered;
    for (const auto& [slot, block] : a.blocks) {
      const PaxosDblockSummary& d = block.dblk;
      v.highest = std::max(v.highest, d.mbal);
      if (ballot < d.mbal) higher = true;
      if (d.seq > seq && (!newer || d.seq > v.newest.dblk.seq)) {
        newer = true;
        v.newest = block;
      }
      // An acceptance at an older seq was for an older synod.
      if (d.seq == seq && d.inp.kind != UpdateKind::None && d.bal > v.bal) {
        v.bal = d.bal;
        v.inp = d.inp;
      }
    }
  }
  if (newer) {
    v.result = kPeerAhead;
  } else if (higher) {
    v.result = kPeerRejected;
  } else {
    v.result = v.answered >= majorityOf(diskCount) ? kPeerOk : E_NO_QUORUM;
  }
  return v;
}

bool usesDisks(const CommittedState& committed) {
  return !committed.config.disks.empty() && committed.files.count(kDisksFileObjId) != 0;
}

int diskRuleOf(const CommittedState& committed, int32_t self, const DiskList& list,
               DiskRule* ruleP) {
  DiskRule rule;
  for (int32_t id : committed.config.disks) {
    const auto it = std::find_if(list.begin(), list.end(), [id](const DiskEntry& d) { return d.id == id; });
    rule.paths.push_back(it == list.end() ? std::string() : it->label);
  }
  for (const ConfigNodeEntry& n : committed.config.nodes) {
    if (n.diskSlot < 0 || n.diskSlot >= MaxPaxosSlots) continue;
    if (n.nodeId == self) {
      rule.slot = n.diskSlot;
    } else {
      rule.others.push_back(n.diskSlot);
    }
  }
  rule.minNodes = std::max(committed.config.minNodes, 1);
  if (rule.slot < 0) return E_NOT_ACTIVE;
  *ruleP = std::move(rule);
  return 0;
}

// ---- workers ----

// Where the answers of one run go; shared with the workers, which may outlive it.
struct DiskWorkers::Collector {
  std::mutex mu;
  std::condition_variable cv;
  std::vector<DiskAnswer> answers;
  std::vector<bool> done;
  int pending = 0;
};

// One disk: a short queue of steps and the thread that runs them in order, so
// that the writes of one proposer reach the disk in the order it made them.
// Shared with its thread, so that a thread stuck in I/O never touches freed memory.
struct DiskWorkers::Worker {
  std::mutex mu;
  std::condition_variable cv;
  bool stop = false;
  std::deque<std::function<void()>> jobs;

  void loop() {
    std::unique_lock<std::mutex> lock(mu);
    while (true) {
      cv.wait(lock, [this] { return stop || !jobs.empty(); });
      if (stop) return;
      std::function<void()> run = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      run();
      lock.lock();
    }
  }
};

DiskWorkers::DiskWorkers(Clock& clock) : clock_(clock) {}

DiskWorkers::~DiskWorkers() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& [disk, worker] : workers_) {
    std::lock_guard<std::mutex> wl(worker->mu);
    worker->stop = true;
    worker->jobs.clear();
    worker->cv.notify_all();
  }
}

std::shared_ptr<DiskWorkers::Worker> DiskWorkers::workerFor(const std::string& disk) {
  std::lock_guard<std::mutex> lock(mu_);
  auto& worker = workers_[disk];
  if (!worker) {
    worker = std::make_shared<Worker>();
    std::thread([w = worker] {
      armCrashHandlerInThread();
      nameThisThread("qcrd-disk");
      w->loop();
    }).detach();
  }
  return worker;
}

std::vector<DiskAnswer> DiskWorkers::run(const std::vector<std::string>& disks, const Job& job,
                                         double deadline) {
  auto c = std::make_shared<Collector>();
  c->answers.resize(disks.size());
  c->done.assign(disks.size(), false);
  Clock* clock = &clock_;
  for (size_t i = 0; i < disks.size(); ++i) {
    const std::shared_ptr<Worker> w = workerFor(disks[i]);
    std::lock_guard<std::mutex> lock(w->mu);
    // The steps queued for earlier disks may already be running and writing to
    // the collector: every touch of it holds its lock (order: worker, collector).
    std::lock_guard<std::mutex> held(c->mu);
    if (w->jobs.size() >= kMaxQueuedSteps) {
      c->answers[i].rc = ETIMEDOUT;  // the disk is stuck: no backlog grows behind it
      continue;
    }
    ++c->pending;
    w->jobs.push_back([c, i, job, disk = disks[i], clock, deadline] {
      // A step whose caller gave up is not run: it would only delay the next.
      DiskAnswer a = clock->now() < deadline ? job(disk) : DiskAnswer{ETIMEDOUT, {}};
      std::lock_guard<std::mutex> cl(c->mu);
      c->answers[i] = std::move(a);
      c->done[i] = true;
      --c->pending;
      c->cv.notify_all();
    });
    w->cv.notify_all();
  }
  std::unique_lock<std::mutex> lock(c->mu);
  while (c->pending > 0) {
    const double left = deadline - clock_.now();
    if (left <= 0) break;
    c->cv.wait_for(lock, std::chrono::duration<double>(std::min(left, kDiskWaitSlice)));
  }
  std::vector<DiskAnswer> answers = c->answers;
  for (size_t i = 0; i < disks.size(); ++i) {
    if (!c->done[i] && answers[i].rc == 0) {
      qcrLog(1, "disk '%s' did not answer in time", disks[i].c_str());
      answers[i] = DiskAnswer{ETIMEDOUT, {}};
    }
  }
  return answers;
}

}  // namespace qcr
