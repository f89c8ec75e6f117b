#include "qcr/server/disk_paxos.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "basic/files.h"
#include "qcr/coding/result.h"
#include "qcr/data/shared_disks.h"
#include "qcr/server/peer_bodies.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

// Lets one of several threads run at a time, the next one drawn from a seeded
// source whenever all of them wait: the interleaving of their disk operations
// then follows the seed alone.
class Turnstile {
 public:
  Turnstile(int threads, uint32_t seed) : active_(threads), rng_(seed) {}
  void step(int id) {
    std::unique_lock<std::mutex> lock(mu_);
    waiting_.insert(id);
    pickLocked();
    cv_.wait(lock, [&] { return turn_ == id; });
    waiting_.erase(id);
    turn_ = -1;
  }
  void leave() {
    std::lock_guard<std::mutex> lock(mu_);
    --active_;
    pickLocked();
  }

 private:
  void pickLocked() {
    if (turn_ >= 0 || waiting_.empty() || static_cast<int>(waiting_.size()) < active_) return;
    auto it = waiting_.begin();
    std::advance(it, rng_() % waiting_.size());
    turn_ = *it;
    cv_.notify_all();
  }
  std::mutex mu_;
  std::condition_variable cv_;
  std::set<int> waiting_;
  int active_;
  int turn_ = -1;
  std::mt19937 rng_;
};

// Disks in memory whose operations wait for their turn and fail now and then.
class MemoryDisks final : public DiskAccess {
 public:
  MemoryDisks(Turnstile* turns, int id, std::map<std::string, std::map<int, PaxosFileData>>* disks,
              std::mt19937* rng, int failPercent)
      : turns_(turns), id_(id), disks_(disks), rng_(rng), failPercent_(failPercent) {}
  int write(const std::string& disk, int slot, const PaxosFileData& data) override {
    turns_->step(id_);
    if (fails()) return EIO;
    (*disks_)[disk][slot] = data;
    return 0;
  }
  int read(const std::string& disk, int slot, PaxosFileData* dataP) override {
    turns_->step(id_);
    if (fails()) return EIO;
    const auto& blocks = (*disks_)[disk];
    const auto it = blocks.find(slot);
    if (it == blocks.end()) return ENOENT;
    *dataP = it->second;
    return 0;
  }

 private:
  bool fails() { return static_cast<int>((*rng_)() % 100) < failPercent_; }
  Turnstile* turns_;
  int id_;
  std::map<std::string, std::map<int, PaxosFileData>>* disks_;
  std::mt19937* rng_;
  int failPercent_;
};

// One proposer as the server runs it through the disks alone: phase 1 with a
// new ballot, the accepted update of the highest ballot (or its own), phase 2,
// and further synods under the same ballot without phase 1 while it succeeds.
class DiskProposer {
 public:
  DiskProposer(int id, DiskAccess* io, std::vector<std::string> disks,
               std::map<int32_t, std::string>* chosen)
      : id_(id), io_(io), disks_(std::move(disks)), chosen_(chosen) {}

  void attempt(int n) {
    const int32_t seq = mine_.dblk.seq;
    if (!established_) {
      const Ballot ballot{std::max(seen_.number, mine_.dblk.mbal.number) + 1, id_};
      mine_.dblk.mbal = ballot;
      const DiskVerdict v = step(seq, ballot);
      if (v.result != kPeerOk) return;
      if (v.inp.kind != UpdateKind::None && v.bal > mine_.dblk.bal) {
        mine_.dblk.bal = v.bal;
        mine_.dblk.inp = v.inp;
      }
      ballot_ = ballot;
      established_ = true;
    }
    ProposedUpdate upd = mine_.dblk.inp;
    if (mine_.dblk.bal == Ballot{} || upd.kind == UpdateKind::None) {
      upd = ProposedUpdate{};
      upd.kind = UpdateKind::ValuePut;
      upd.name = "k";
      upd.value = "p" + std::to_string(id_) + "." + std::to_string(n);
    }
    mine_.dblk.bal = ballot_;
    mine_.dblk.inp = upd;
    if (step(seq, ballot_).result != kPeerOk) return;
    // Chosen: no two proposers may ever choose different updates for one synod.
    const auto [it, fresh] = chosen_->emplace(seq + 1, upd.value);
    EXPECT_EQ(it->second, upd.value) << "synod " << seq + 1 << " chosen twice";
    mine_.dblk.committed.values[std::to_string(seq + 1)] = {1, upd.value};
    mine_.dblk.seq = seq + 1;
    mine_.dblk.bal = Ballot{};
    mine_.dblk.inp = ProposedUpdate{};
  }

 private:
  DiskVerdict step(int32_t seq, const Ballot& ballot) {
    std::vector<DiskAnswer> answers;
    for (const std::string& d : disks_) answers.push_back(exchangeDisk(*io_, d, id_, &mine_, {1 - id_}));
    DiskVerdict v = judgeDisks(answers, disks_.size(), seq, ballot);
    seen_ = std::max(seen_, v.highest);
    if (v.result == kPeerAhead) {
      // A newer committed state agrees with every choice made so far.
      for (const auto& [key, value] : v.newest.dblk.committed.values) {
        const auto it = chosen_->find(std::stoi(key));
        EXPECT_TRUE(it != chosen_->end() && it->second == value.text) << "synod " << key;
      }
      mine_.dblk.seq = v.newest.dblk.seq;
      mine_.dblk.committed = v.newest.dblk.committed;
      mine_.dblk.bal = Ballot{};
      mine_.dblk.inp = ProposedUpdate{};
    }
    if (v.result != kPeerOk) established_ = false;
    return v;
  }

  int id_;
  DiskAccess* io_;
  std::vector<std::string> disks_;
  std::map<int32_t, std::string>* chosen_;
  PaxosFileData mine_;
  Ballot seen_;
  Ballot ballot_;
  bool established_ = false;
};

// Two proposers at once through one to three disks whose operations interleave
// as a seeded source says and fail now and then: whatever the order, one synod
// never gets two different updates, and a proposer that takes over a newer state
// finds the same choices. The seed is printed so that a failure can be re-run.
TEST(DiskPaxos, ConcurrentProposersNeverChooseTwoUpdatesForOneSynod) {
  const uint32_t seed = std::random_device{}();
  printf("disk paxos seed %u\n", seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 setup(seed);
  int decided = 0;
  for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round) {
    std::map<std::string, std::map<int, PaxosFileData>> disks;
    std::vector<std::string> names;
    for (int d = 0, n = 1 + static_cast<int>(setup() % 3); d < n; ++d) names.push_back("d" + std::to_string(d));
    std::map<int32_t, std::string> chosen;
    std::mt19937 faults(setup());
    Turnstile turns(2, setup());
    const int failPercent = static_cast<int>(setup() % 3) * 10;
    std::vector<std::thread> threads;
    for (int id = 0; id < 2; ++id) {
      threads.emplace_back([&, id] {
        MemoryDisks io(&turns, id, &disks, &faults, failPercent);
        DiskProposer proposer(id, &io, names, &chosen);
        for (int n = 0; n < 12; ++n) proposer.attempt(n);
        turns.leave();
      });
    }
    for (std::thread& t : threads) t.join();
    decided += static_cast<int>(chosen.size());
  }
  EXPECT_GT(decided, 0);
}

// The verdict: a newer state before a higher ballot, a higher ballot from any
// disk, the accepted update of the highest ballot at the proposer's own seq only,
// and a majority of the disks for success.
TEST(DiskPaxos, JudgeWeighsBlocks) {
  auto block = [](int32_t seq, Ballot mbal, Ballot bal, const std::string& value) {
    PaxosFileData d;
    d.dblk.seq = seq;
    d.dblk.mbal = mbal;
    d.dblk.bal = bal;
    if (!value.empty()) {
      d.dblk.inp.kind = UpdateKind::ValuePut;
      d.dblk.inp.value = value;
    }
    return d;
  };
  const Ballot mine{5, 1};
  DiskAnswer a{0, {{1, block(3, {4, 2}, {4, 2}, "x")}, {2, block(3, {3, 3}, {3, 3}, "y")}}};
  DiskAnswer old{0, {{1, block(2, {2, 2}, {4, 5}, "stale")}}};
  const DiskAnswer failed{EIO, {}};
  DiskVerdict v = judgeDisks({a, old, failed}, 3, 3, mine);
  EXPECT_EQ(v.result, kPeerOk);
  EXPECT_EQ(v.inp.value, "x");
  EXPECT_EQ(v.answered, 2);
  EXPECT_EQ(judgeDisks({a, failed, failed}, 3, 3, mine).result, E_NO_QUORUM);
  EXPECT_EQ(judgeDisks({a, failed}, 2, 3, mine).result, E_NO_QUORUM);
  DiskAnswer higher{0, {{2, block(1, {6, 2}, {}, "")}}};
  v = judgeDisks({higher, failed, failed}, 3, 3, mine);
  EXPECT_EQ(v.result, kPeerRejected);
  EXPECT_EQ(v.highest, (Ballot{6, 2}));
  DiskAnswer newer{0, {{2, block(4, {6, 2}, {}, "")}}};
  v = judgeDisks({a, newer}, 2, 3, mine);
  EXPECT_EQ(v.result, kPeerAhead);
  EXPECT_EQ(v.newest.dblk.seq, 4);
}

// The disk files: a synod never recreates a missing disk, and a missing disk, a
// directory in its place, a damaged block or one of another cluster counts as a
// disk that does not answer; a block never written is no error.
TEST(DiskPaxos, FileDisksRefuseWhatIsNotTheirs) {
  const test::ScopedTempDir dir;
  const std::string disk = dir.file("disk1");
  PaxosDblockSummary initial;
  ASSERT_EQ(InitSharedDisks({}, {{1, 0, disk}}, initial, 2, 77), 0);
  FileDiskAccess io({77, 1});
  PaxosFileData mine;
  mine.dblk.mbal = {3, 1};
  DiskAnswer a = exchangeDisk(io, disk, 0, &mine, {1, 5});
  ASSERT_EQ(a.rc, 0);
  EXPECT_EQ(a.blocks.size(), 1u);  // slot 5 was never written
  EXPECT_EQ(exchangeDisk(io, dir.file("missing"), 0, &mine, {1}).rc, ENOENT);
  EXPECT_FALSE(fileExists(dir.file("missing")));
  EXPECT_EQ(exchangeDisk(io, dir.file("missing"), 0, nullptr, {1}).rc, ENODEV);
  EXPECT_EQ(exchangeDisk(io, "", 0, nullptr, {1}).rc, ENOENT);
  ASSERT_EQ(makeDirectory(dir.file("adir"), 0700), 0);
  EXPECT_NE(exchangeDisk(io, dir.file("adir"), 0, nullptr, {1, 5}).rc, 0);
  EXPECT_NE(exchangeDisk(io, dir.file("adir"), 0, &mine, {1}).rc, 0);
  ASSERT_EQ(symlink(disk.c_str(), dir.file("link").c_str()), 0);
  EXPECT_EQ(exchangeDisk(io, dir.file("link"), 0, nullptr, {1}).rc, ELOOP);
  FileDiskAccess other({78, 2});
  EXPECT_EQ(exchangeDisk(other, disk, 1, nullptr, {0}).rc, E_CLUSTER_MISMATCH);
  // A length word that claims more than the block holds is refused, not followed.
  {
    File f;
    ASSERT_EQ(f.openReadWrite(disk, 0600), 0);
    const uint8_t huge[4] = {0x7F, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(f.writeAllAt(huge, 4, kDiskBlockBytes + 8), 0);  // both copies of block 1
    ASSERT_EQ(f.writeAllAt(huge, 4, kDiskBlockBytes + kDiskBlockBytes / 2 + 8), 0);
  }
  EXPECT_EQ(exchangeDisk(io, disk, 0, nullptr, {1}).rc, E_CORRUPT_STATE);
}

// A disk that hangs costs a run its deadline while the other disks answer; once
// a few steps wait behind the stuck one, further runs answer for it at once
// instead of waiting out their deadlines.
TEST(DiskPaxos, HungDiskCostsOnlyTheDeadline) {
  Clock& clock = systemClock();
  DiskWorkers workers(clock);
  auto release = std::make_shared<std::promise<void>>();
  std::shared_future<void> released = release->get_future().share();
  const DiskWorkers::Job job = [released](const std::string& disk) {
    if (disk == "hung") released.wait();
    return DiskAnswer{0, {}};
  };
  auto answers = workers.run({"ok", "hung"}, job, clock.now() + 0.1);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[0].rc, 0);
  EXPECT_EQ(answers[1].rc, ETIMEDOUT);
  for (int i = 0; i < 4; ++i) (void)workers.run({"hung"}, job, clock.now() + 0.05);
  const double start = clock.now();
  answers = workers.run({"hung", "ok"}, job, start + 600);
  EXPECT_LT(clock.now() - start, 300);  // not the deadline: the queue was full
  EXPECT_EQ(answers[0].rc, ETIMEDOUT);
  EXPECT_EQ(answers[1].rc, 0);
  release->set_value();
}

}  // namespace
}  // namespace qcr
