// The connections of qcrd between their requests, and the threads that serve them.
//
// A new connection goes to a worker at once: its hello follows its connect
// closely. One poller thread watches every connection that waits (for a hello
// that was slow to come, or for its next request) and hands a connection whose
// bytes arrive to a worker, which serves what arrived (the hello, or one request
// with its whole exchange) and gives the connection back to be watched. While a connection waits, the poller
// asks it now and then whether it may wait on (its deadline, the network) and
// closes it when not. The workers are threads kept for reuse: keptWorkers start
// with the pool, more start while connections wait for a worker, up to one per
// connection held, and those beyond keptWorkers end after spareWorkerSeconds
// without work. No thread is made per connection or per request.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "basic/clock.h"
#include "basic/readiness.h"

namespace qcr {

// One connection in the pool. The pool calls serve on one worker at a time and
// mayWait on the poller only while no worker holds the connection, so the two
// never run at once. The destructor closes the connection.
class PooledConn {
 public:
  virtual ~PooledConn() = default;
  virtual int socket() const = 0;
  // Serves what arrived, or what arrives within a moment for a new connection;
  // true gives the connection back to be watched, false ends it.
  virtual bool serve() = 0;
  // Whether the connection may wait on at now (seconds on the pool's clock).
  virtual bool mayWait(double now) = 0;
};

class ConnPool final {
 public:
  struct Options {
    int maxConnections = 264;  // connections held at once, and the most workers
    int keptWorkers = 8;       // workers that stay while there is no work
    double spareWorkerSeconds = 30;  // how long a worker beyond those waits for work
    int pollMs = 500;  // how often the waiting connections and the stop flag are looked at
  };

  ConnPool(Options options, Clock& clock);
  ~ConnPool();  // stop()
  ConnPool(const ConnPool&) = delete;
  ConnPool& operator=(const ConnPool&) = delete;

  // Starts the poller and the kept workers. 0, or the system's error.
  [[nodiscard]] int start();
  // Closes every connection (those being served once their worker is done with
  // them) and joins every thread. Returns when they are gone.
  void stop();
  // Takes conn and has a worker serve it: 0; EBUSY when maxConnections are held
  // already, or ESHUTDOWN once stopping, with conn closed. The acceptor's thread
  // only.
  [[nodiscard]] int add(std::unique_ptr<PooledConn> conn);

  // Connections held now, the most held at once so far, and the workers now.
  int size();
  int peak();
  int workers();

 private:
  struct Entry {
    std::unique_ptr<PooledConn> conn;
    bool busy = false;     // queued for a worker or being served
    bool watched = false;  // in readiness_ (since it was first given back)
  };
  struct Worker {
    std::thread thread;
    bool done = false;
  };

  void pollLoop();
  void dispatch(uint64_t key);
  // Puts key in the queue for a worker, starting one when none is idle.
  void queueLocked(uint64_t key);
  void closeWaiting(bool all);
  void workerLoop(Worker* self);
  void giveBack(uint64_t key, bool keep, std::unique_lock<std::mutex>& lock);
  [[nodiscard]] bool startWorkerLocked();
  void reapWorkers(bool all);

  const Options options_;
  Clock& clock_;
  ReadinessSet readiness_;
  std::thread poller_;
  std::mutex mutex_;  // guards everything below
  std::condition_variable workCv_;
  bool stopping_ = false;
  std::unordered_map<uint64_t, Entry> entries_;
  uint64_t nextKey_ = 1;
  int peak_ = 0;
  std::deque<uint64_t> ready_;  // connections with bytes waiting for a worker
  std::list<Worker> workers_;   // started and not yet joined
  int liveWorkers_ = 0;         // of workers_, those not done
  int idleWorkers_ = 0;         // of those, the ones waiting for work
};

}  // namespace qcr
