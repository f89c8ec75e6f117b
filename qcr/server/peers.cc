#include "qcr/server/peers.h"

#include <algorithm>
#include <cerrno>
#include <deque>

#include "basic/crash.h"
#include "basic/log.h"

namespace qcr {

namespace {

// Bounds one connect or wait of a worker, whatever the round's deadline.
constexpr int kMaxWaitMs = 1500;
constexpr int kMinWaitMs = 50;
// The longest single wait of a round: a clock that another thread moves (a test's)
// is looked at again this often.
constexpr double kRoundWaitSlice = 0.05;

int remainingMs(Clock& clock, double deadline) {
  const double left = (deadline - clock.now()) * 1000.0;
  return static_cast<int>(std::clamp(left, double{kMinWaitMs}, double{kMaxWaitMs}));
}

}  // namespace

void Round::add(PeerAnswer answer) {
  std::lock_guard<std::mutex> lock(mu_);
  answers_.push_back(std::move(answer));
  cv_.notify_all();
}

std::vector<PeerAnswer> Round::wait(
    const std::function<bool(const std::vector<PeerAnswer>&)>& done) {
  std::unique_lock<std::mutex> lock(mu_);
  while (!done(answers_) && static_cast<int>(answers_.size()) < expected_) {
    const double left = deadline_ - clock_.now();
    if (left <= 0) break;
    cv_.wait_for(lock, std::chrono::duration<double>(std::min(left, kRoundWaitSlice)));
  }
  abandoned_ = true;
  return answers_;
}

// One peer: a queue of jobs and the thread that runs them over a kept connection.
class PeerSet::Worker final {
 public:
  Worker(int32_t id, const PeerAddress& address, uint64_t clusterId,
         const SecurityContext* security, Clock& clock,
         std::shared_ptr<const std::atomic<double>> downUntil)
      : id_(id), address_(address), clusterId_(clusterId), security_(security), clock_(clock),
        downUntil_(std::move(downUntil)), thread_([this] {
          armCrashHandlerInThread();
          run();
        }) {}
  ~Worker() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
      cv_.notify_all();
    }
    thread_.join();
  }
  const PeerAddress& address() const { return address_; }
  void post(const PeerJob& job, std::shared_ptr<Round> round) {
    std::lock_guard<std::mutex> lock(mu_);
    queue_.emplace_back(job, std::move(round));
    cv_.notify_all();
  }

 private:
  void run() {
    for (;;) {
      std::pair<PeerJob, std::shared_ptr<Round>> item;
      {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
        if (stop_) break;
        item = std::move(queue_.front());
        queue_.pop_front();
      }
      item.second->add(runJob(item.first, *item.second));
    }
    // Whatever is left answers at once, so that no round waits for a stopped set.
    for (auto& item : queue_) item.second->add({id_, kErrTimedOut, {}});
  }

  PeerAnswer runJob(const PeerJob& job, const Round& round) {
    const double deadline = round.deadline();
    if (round.abandoned() || clock_.now() >= deadline) return {id_, kErrTimedOut, {}};
    if (clock_.now() < downUntil_->load()) {
      conn_.reset();
      return {id_, ENETDOWN, {}};
    }
    const int waitMs = remainingMs(clock_, deadline);
    // A connection the peer closed meanwhile (it closes idle ones) is not tried.
    if (conn_ && peekSocket(conn_->getSocket()) == 0) conn_.reset();
    if (!conn_) {
      const int rc = peerConnect(address_, clusterId_, waitMs, security_, &conn_);
      if (rc != 0) return {id_, rc, {}};
    }
    conn_->setTimeouts(waitMs, waitMs);
    PeerAnswer answer = job(id_, *conn_);
    answer.peer = id_;
    if (answer.rc != 0 || conn_->isBad()) conn_.reset();
    return answer;
  }

  const int32_t id_;
  const PeerAddress address_;
  const uint64_t clusterId_;
  const SecurityContext* const security_;
  Clock& clock_;
  const std::shared_ptr<const std::atomic<double>> downUntil_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::pair<PeerJob, std::shared_ptr<Round>>> queue_;
  bool stop_ = false;
  std::unique_ptr<ConnImplementation> conn_;  // used by the worker thread only
  std::thread thread_;  // last: starts once the members above exist
};

PeerSet::PeerSet(uint64_t clusterId, Clock& clock) : clock_(clock), clusterId_(clusterId) {}

PeerSet::~PeerSet() { stop(); }

void PeerSet::setClusterId(uint64_t clusterId) {
  std::lock_guard<std::mutex> lock(mu_);
  if (clusterId_ == clusterId) return;
  clusterId_ = clusterId;
  workers_.clear();  // reconnect with the new id
}

void PeerSet::setSecurity(const SecurityContext* security) {
  std::lock_guard<std::mutex> lock(mu_);
  security_ = security;
}

void PeerSet::reconnectAll() {
  std::lock_guard<std::mutex> lock(mu_);
  std::map<int32_t, PeerAddress> peers;
  for (const auto& [id, worker] : workers_) peers[id] = worker->address();
  workers_.clear();  // joins the workers, closing their connections
  for (const auto& [id, address] : peers) {
    workers_[id] =
        std::make_unique<Worker>(id, address, clusterId_, security_, clock_, downUntil_);
  }
}

void PeerSet::setPeers(const std::map<int32_t, PeerAddress>& peers) {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto it = workers_.begin(); it != workers_.end();) {
    const auto p = peers.find(it->first);
    it = p == peers.end() || p->second != it->second->address() ? workers_.erase(it)
                                                                   : std::next(it);
  }
  for (const auto& [id, address] : peers) {
    if (workers_.count(id) == 0) {
      workers_[id] =
          std::make_unique<Worker>(id, address, clusterId_, security_, clock_, downUntil_);
      qcrLog(4, "peer %d at %s", id, addressText(address).c_str());
    }
  }
}

std::vector<int32_t> PeerSet::peerIds() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<int32_t> ids;
  for (const auto& entry : workers_) ids.push_back(entry.first);
  return ids;
}

std::shared_ptr<Round> PeerSet::broadcast(const PeerJob& job, double deadline) {
  std::lock_guard<std::mutex> lock(mu_);
  auto round = std::make_shared<Round>(static_cast<int>(workers_.size()), deadline, clock_);
  for (auto& entry : workers_) entry.second->post(job, round);
  return round;
}

std::shared_ptr<Round> PeerSet::sendTo(int32_t id, const PeerJob& job, double deadline) {
  std::lock_guard<std::mutex> lock(mu_);
  auto round = std::make_shared<Round>(1, deadline, clock_);
  const auto it = workers_.find(id);
  if (it == workers_.end()) {
    round->add({id, ENOENT, {}});
  } else {
    it->second->post(job, round);
  }
  return round;
}

void PeerSet::stop() {
  std::map<int32_t, std::unique_ptr<Worker>> old;
  {
    std::lock_guard<std::mutex> lock(mu_);
    old.swap(workers_);
  }
  old.clear();
}

}  // namespace qcr
