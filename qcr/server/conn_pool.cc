#include "qcr/server/conn_pool.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "basic/background.h"
#include "basic/crash.h"
#include "basic/log.h"

namespace qcr {

ConnPool::ConnPool(Options options, Clock& clock) : options_(options), clock_(clock) {}

ConnPool::~ConnPool() { stop(); }

int ConnPool::start() {
  if (const int rc = readiness_.open(); rc != 0) return rc;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < options_.keptWorkers; ++i) {
      if (!startWorkerLocked()) break;
    }
    if (liveWorkers_ == 0) return EAGAIN;
  }
  try {
    poller_ = std::thread([this] {
      armCrashHandlerInThread();
      nameThisThread("qcrd-poll");
      pollLoop();
    });
  } catch (const std::system_error&) {
    stop();
    return EAGAIN;
  }
  return 0;
}

void ConnPool::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  workCv_.notify_all();
  if (poller_.joinable()) poller_.join();
  closeWaiting(true);
  reapWorkers(true);  // each closes the connection it serves once done with it
}

int ConnPool::add(std::unique_ptr<PooledConn> conn) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return ESHUTDOWN;
    if (static_cast<int>(entries_.size()) >= options_.maxConnections) return EBUSY;
    const uint64_t key = nextKey_++;
    entries_.emplace(key, Entry{std::move(conn), true, false});
    peak_ = std::max(peak_, static_cast<int>(entries_.size()));
    queueLocked(key);
  }
  // Once the lock is free: a worker woken under it would block on it at once.
  workCv_.notify_one();
  return 0;
}

int ConnPool::size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(entries_.size());
}

int ConnPool::peak() {
  std::lock_guard<std::mutex> lock(mutex_);
  return peak_;
}

int ConnPool::workers() {
  std::lock_guard<std::mutex> lock(mutex_);
  return liveWorkers_;
}

void ConnPool::pollLoop() {
  std::vector<uint64_t> keys;
  auto lastLook = std::chrono::steady_clock::now();
  const auto lookEvery = std::chrono::milliseconds(options_.pollMs);
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
    }
    if (const int rc = readiness_.wait(options_.pollMs, &keys); rc != 0) {
      // Not expected to last; the pause keeps a lasting failure from spinning.
      qcrLog(1, "waiting for connections failed (%d)", rc);
      std::this_thread::sleep_for(lookEvery);
    }
    for (uint64_t key : keys) dispatch(key);
    // A wait in real time: it paces the look at the deadlines, which are on the clock.
    const auto now = std::chrono::steady_clock::now();
    if (now - lastLook >= lookEvery) {
      lastLook = now;
      closeWaiting(false);
      reapWorkers(false);
    }
  }
}

void ConnPool::dispatch(uint64_t key) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = entries_.find(key);
    if (stopping_ || it == entries_.end() || it->second.busy) return;
    it->second.busy = true;
    queueLocked(key);
  }
  // Once the lock is free: a worker woken under it would block on it at once.
  workCv_.notify_one();
}

void ConnPool::queueLocked(uint64_t key) {
  ready_.push_back(key);
  // Every connection in the queue has a worker waiting for it or one more; at
  // most one worker per connection held, so the bound is maxConnections.
  if (static_cast<int>(ready_.size()) > idleWorkers_ && liveWorkers_ < options_.maxConnections) {
    (void)startWorkerLocked();
  }
}

void ConnPool::closeWaiting(bool all) {
  std::vector<std::unique_ptr<PooledConn>> ended;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const double now = clock_.now();
    for (auto it = entries_.begin(); it != entries_.end();) {
      Entry& e = it->second;
      if (e.busy || (!all && e.conn->mayWait(now))) {
        ++it;
        continue;
      }
      readiness_.remove(e.conn->socket());
      ended.push_back(std::move(e.conn));
      it = entries_.erase(it);
    }
    if (all) {  // queued ones too: no worker takes them any more
      for (uint64_t key : ready_) {
        const auto it = entries_.find(key);
        if (it->second.watched) readiness_.remove(it->second.conn->socket());
        ended.push_back(std::move(it->second.conn));
        entries_.erase(it);
      }
      ready_.clear();
    }
  }
  ended.clear();  // closes them, outside the lock
}

void ConnPool::workerLoop(Worker* self) {
  const auto spare = std::chrono::duration<double>(options_.spareWorkerSeconds);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (ready_.empty()) {
      ++idleWorkers_;
      const bool woken =
          workCv_.wait_for(lock, spare, [this] { return stopping_ || !ready_.empty(); });
      --idleWorkers_;
      if (!woken && liveWorkers_ > options_.keptWorkers) break;
      continue;
    }
    const uint64_t key = ready_.front();
    ready_.pop_front();
    PooledConn* conn = entries_.at(key).conn.get();
    lock.unlock();
    const bool keep = conn->serve();
    lock.lock();
    giveBack(key, keep, lock);
  }
  --liveWorkers_;
  self->done = true;
}

void ConnPool::giveBack(uint64_t key, bool keep, std::unique_lock<std::mutex>& lock) {
  const auto it = entries_.find(key);
  Entry& e = it->second;
  if (keep && !stopping_) {
    const int sock = e.conn->socket();
    const int rc = e.watched ? readiness_.arm(sock, key) : readiness_.add(sock, key);
    if (rc == 0) {
      e.busy = false;
      e.watched = true;
      return;
    }
    qcrLog(1, "cannot watch a connection (%d): closing it", rc);
  }
  std::unique_ptr<PooledConn> ended = std::move(e.conn);
  // A connection whose socket is closed already (-1) left the set with it.
  if (e.watched && ended->socket() >= 0) readiness_.remove(ended->socket());
  entries_.erase(it);
  lock.unlock();
  ended.reset();
  lock.lock();
}

bool ConnPool::startWorkerLocked() {
  Worker& worker = workers_.emplace_back();
  try {
    worker.thread = std::thread([this, &worker] {
      armCrashHandlerInThread();
      nameThisThread("qcrd-conn");
      workerLoop(&worker);
    });
  } catch (const std::system_error& e) {
    workers_.pop_back();
    qcrLog(1, "no thread for another worker (%s)", e.what());
    return false;
  }
  ++liveWorkers_;
  return true;
}

void ConnPool::reapWorkers(bool all) {
  std::list<Worker> finished;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (all || it->done) {
        finished.splice(finished.end(), workers_, it++);
      } else {
        ++it;
      }
    }
  }
  for (Worker& w : finished) w.thread.join();
}

}  // namespace qcr
