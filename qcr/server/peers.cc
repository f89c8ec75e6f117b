#include "qcr/server/peers.h"

#include <algorithm>
#include <cerrno>
#include <deque>

#include "basic/background.h"
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

// The kept connection as a job sees it while replies to one-way messages are still
// on their way: a receive first reads and drops those replies, so that the job gets
// the answer to its own message. The one-way messages' senders wanted no answer.
class DrainingConnection final : public Connection {
 public:
  DrainingConnection(ConnImplementation& inner, int* unreadP)
      : Connection(inner.peerAddress()), inner_(inner), unread_(unreadP) {
    setFirstSend(false);
  }
  int send(int msgType, const void* body, int len) override {
    return mark(inner_.send(msgType, body, len));
  }
  int receive(int* msgTypeP, std::unique_ptr<uint8_t[]>* msgDataP, int* lenP) override {
    for (; *unread_ > 0; --*unread_) {
      const int rc = mark(inner_.receive(msgTypeP, msgDataP, lenP));
      if (rc != 0) return rc;
    }
    return mark(inner_.receive(msgTypeP, msgDataP, lenP));
  }
  void close() override { inner_.close(); }
  int getSocket() const override { return inner_.getSocket(); }
  uint64_t peerClusterId() const override { return inner_.peerClusterId(); }
  int peerNodeValue() const override { return inner_.peerNodeValue(); }

 private:
  int mark(int rc) {
    if (rc != 0) inner_.markBad();
    return rc;
  }
  ConnImplementation& inner_;
  int* unread_;
};

}  // namespace

void Round::add(PeerAnswer answer) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    answers_.push_back(std::move(answer));
  }
  // Notified once the lock is free: a waiter woken under it would only block
  // on it again, and on a busy machine take the notifier's CPU to do so.
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
          nameThisThread(("qcrd-peer" + std::to_string(id_)).c_str());
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
  // The worker is woken once the queue's lock is free (see Round::add); only it
  // waits on cv_.
  void post(const PeerJob& job, std::shared_ptr<Round> round) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      queue_.push_back({job, std::move(round), nullptr});
    }
    cv_.notify_one();
  }
  void postOneWay(std::shared_ptr<const OneWay> message, std::shared_ptr<Round> round) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      queue_.push_back({{}, std::move(round), std::move(message)});
    }
    cv_.notify_one();
  }
  // Both at once: the worker finds the job behind the message and sends them in
  // one write.
  void postAfter(std::shared_ptr<const OneWay> first, std::shared_ptr<Round> firstRound,
                 const PeerJob& job, std::shared_ptr<Round> round) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      queue_.push_back({{}, std::move(firstRound), std::move(first)});
      queue_.push_back({job, std::move(round), nullptr});
    }
    cv_.notify_one();
  }

 private:
  struct Item {
    PeerJob job;
    std::shared_ptr<Round> round;
    std::shared_ptr<const OneWay> oneWay;  // set: send this instead of running job
  };

  void run() {
    for (;;) {
      Item item;
      bool newer;
      {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
        if (stop_) break;
        item = std::move(queue_.front());
        queue_.pop_front();
        newer = !queue_.empty();
      }
      item.round->add(runJob(item, *item.round, newer));
      bool idle;
      {
        std::lock_guard<std::mutex> lock(mu_);
        idle = queue_.empty();
      }
      // A one-way message kept for the job behind it goes out alone when that job
      // sent nothing (it was dropped) and nothing else follows.
      if (idle && conn_ && conn_->flush() != 0) conn_.reset();
    }
    // Whatever is left answers at once, so that no round waits for a stopped set.
    for (auto& item : queue_) item.round->add({id_, kErrTimedOut, {}});
  }

  // newer: more jobs wait behind this one.
  PeerAnswer runJob(const Item& item, const Round& round, bool newer) {
    const double deadline = round.deadline();
    // A round whose caller went on without this peer's answer (the others
    // sufficed) is still run over a kept connection: it keeps a peer whose worker
    // merely woke late current (an acceptance it misses costs it a catch-up with
    // the whole state), and the deadline bounds how far behind it runs. Without a
    // connection it is dropped while newer rounds wait: a stopped peer is tried
    // once for the latest round, not once for every round it missed.
    const bool dropped = round.abandoned() && newer && !conn_;
    if (dropped || clock_.now() >= deadline) return {id_, kErrTimedOut, {}};
    if (clock_.now() < downUntil_->load()) {
      conn_.reset();
      return {id_, ENETDOWN, {}};
    }
    const int waitMs = remainingMs(clock_, deadline);
    // A connection the peer closed meanwhile (it closes idle ones) is not tried.
    if (conn_ && peekSocket(conn_->getSocket()) == 0) conn_.reset();
    if (!conn_) {
      unread_ = 0;
      const int rc = peerConnect(address_, clusterId_, waitMs, security_, &conn_);
      if (rc != 0) return {id_, rc, {}};
    }
    conn_->setTimeouts(waitMs, waitMs);
    PeerAnswer answer;
    if (item.oneWay) {
      // The reply is read (and dropped) by the next exchange, or never when the
      // connection goes first: the sender goes on at once. With a job behind it,
      // the message goes out with that job's first message, in one write.
      const OneWay& m = *item.oneWay;
      answer.rc = newer ? conn_->sendLater(m.type, m.body) : conn_->send(m.type, m.body);
      if (answer.rc == 0) ++unread_;
    } else if (unread_ > 0) {
      DrainingConnection draining(*conn_, &unread_);
      answer = item.job(id_, draining);
    } else {
      answer = item.job(id_, *conn_);
    }
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
  std::deque<Item> queue_;
  bool stop_ = false;
  std::unique_ptr<ConnImplementation> conn_;  // used by the worker thread only
  int unread_ = 0;  // replies to one-way messages not read yet on conn_
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

std::shared_ptr<Round> PeerSet::broadcastOneWay(int type, std::vector<uint8_t> body,
                                                double deadline) {
  auto message = std::make_shared<const OneWay>(OneWay{type, std::move(body)});
  std::lock_guard<std::mutex> lock(mu_);
  auto round = std::make_shared<Round>(static_cast<int>(workers_.size()), deadline, clock_);
  for (auto& entry : workers_) entry.second->postOneWay(message, round);
  return round;
}

std::shared_ptr<Round> PeerSet::broadcastAfter(std::shared_ptr<const OneWay> first,
                                               const PeerJob& job, double deadline) {
  if (!first) return broadcast(job, deadline);
  std::lock_guard<std::mutex> lock(mu_);
  const int n = static_cast<int>(workers_.size());
  auto firstRound = std::make_shared<Round>(n, deadline, clock_);
  auto round = std::make_shared<Round>(n, deadline, clock_);
  for (auto& entry : workers_) entry.second->postAfter(first, firstRound, job, round);
  return round;
}

std::shared_ptr<Round> PeerRounds::broadcastAfter(std::shared_ptr<const OneWay> first,
                                                  const PeerJob& job, double deadline) {
  if (first) (void)broadcastOneWay(first->type, first->body, deadline);
  return broadcast(job, deadline);
}

std::shared_ptr<Round> PeerRounds::broadcastOneWay(int type, std::vector<uint8_t> body,
                                                   double deadline) {
  auto shared = std::make_shared<const std::vector<uint8_t>>(std::move(body));
  return broadcast(
      [type, shared](int32_t peer, Connection& conn) {
        PeerAnswer a{peer, conn.send(type, *shared), {}};
        Message ignored;
        if (a.rc == 0) a.rc = conn.receive(&ignored);
        return a;
      },
      deadline);
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
