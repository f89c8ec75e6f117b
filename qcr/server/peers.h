// The other servers of the configuration, each served by a worker thread that
// keeps one connection to it, so that a round reaches every peer at once and a
// slow or stopped peer delays nobody but itself.
//
// A round hands one job to the worker of each peer and collects their answers;
// the caller waits until the answers suffice, all are in, or the round's deadline
// passes. Answers that arrive later are dropped with the round. Jobs whose round
// is past its deadline are not run when the worker reaches them, nor, while the
// worker has no connection, are jobs whose caller stopped waiting and that newer
// jobs wait behind: a slow or stopped peer's queue does not grow into a backlog
// of exchanges nobody needs any more (a peer that misses a file push pulls the
// file itself), and a connected peer whose worker woke late still gets every
// request.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "basic/clock.h"
#include "basic/net.h"
#include "qcr/comm/connection.h"
#include "qcr/server/peer_link.h"

namespace qcr {

struct PeerAnswer {
  int32_t peer = 0;
  int rc = 0;  // 0, or the connection's error
  Message reply;
};

class Round final {
 public:
  // deadline: seconds on clock, which outlives the round.
  Round(int expected, double deadline, Clock& clock)
      : expected_(expected), deadline_(deadline), clock_(clock) {}
  // Called by workers.
  void add(PeerAnswer answer);
  double deadline() const { return deadline_; }
  // Whether the caller has stopped waiting: set when wait returns.
  bool abandoned() const { return abandoned_; }
  // Waits until done(answers) holds, every peer answered, or the deadline passed;
  // returns the answers collected so far.
  std::vector<PeerAnswer> wait(const std::function<bool(const std::vector<PeerAnswer>&)>& done);

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<PeerAnswer> answers_;
  const int expected_;
  const double deadline_;
  Clock& clock_;
  std::atomic<bool> abandoned_{false};
};

// A job runs one exchange with its peer over conn; it returns the answer (rc
// non-zero drops the connection).
using PeerJob = std::function<PeerAnswer(int32_t peer, Connection& conn)>;

// A message sent without waiting for its answer.
struct OneWay {
  int type = 0;
  std::vector<uint8_t> body;
};

// What a proposer needs of the other servers: a round of one job on each of them,
// or on one. Deadlines are seconds on the clock the rounds are made with.
class PeerRounds {
 public:
  virtual ~PeerRounds() = default;
  // Starts job on every peer.
  virtual std::shared_ptr<Round> broadcast(const PeerJob& job, double deadline) = 0;
  // Sends a message to every peer whose answer nobody needs. The round has an
  // answer of each peer once the message went out (rc 0) or could not; the reply
  // is read later, by the next exchange with that peer, so that the next message
  // follows at once. This one waits for each reply in a job of its own.
  virtual std::shared_ptr<Round> broadcastOneWay(int type, std::vector<uint8_t> body,
                                                  double deadline);
  // broadcastOneWay of first (when set), then broadcast of job: the job's round.
  virtual std::shared_ptr<Round> broadcastAfter(std::shared_ptr<const OneWay> first,
                                                const PeerJob& job, double deadline);
  // Starts job on peer id alone (a round of one; it answers ENOENT at once for a
  // peer not in the set).
  virtual std::shared_ptr<Round> sendTo(int32_t id, const PeerJob& job, double deadline) = 0;
};

class PeerSet final : public PeerRounds {
 public:
  // clock (deadlines, connect and wait limits) outlives the set.
  PeerSet(uint64_t clusterId, Clock& clock);
  ~PeerSet();
  PeerSet(const PeerSet&) = delete;
  PeerSet& operator=(const PeerSet&) = delete;

  void setClusterId(uint64_t clusterId);
  // Until this time (seconds on clock) every exchange fails at once with
  // ENETDOWN and the kept connections are dropped: the server is off the network.
  void setDownUntil(double until) { *downUntil_ = until; }
  // The security of the connections to peers made from now on (null: none); it
  // outlives the set.
  void setSecurity(const SecurityContext* security);
  // Drops every kept connection: the peers are reached afresh (after new keys).
  void reconnectAll();
  // Makes the set exactly these peers (node id -> address), keeping the workers of
  // peers whose address is unchanged.
  void setPeers(const std::map<int32_t, PeerAddress>& peers);
  std::vector<int32_t> peerIds() const;
  std::shared_ptr<Round> broadcast(const PeerJob& job, double deadline) override;
  // The reply to a one-way message is read and dropped by the next job on the
  // same connection, before that job's own answer.
  std::shared_ptr<Round> broadcastOneWay(int type, std::vector<uint8_t> body,
                                         double deadline) override;
  // Both handed to each worker at once: the one-way message goes out in one write
  // with the job's first message, and the peer reads them at one wake-up.
  std::shared_ptr<Round> broadcastAfter(std::shared_ptr<const OneWay> first, const PeerJob& job,
                                        double deadline) override;
  std::shared_ptr<Round> sendTo(int32_t id, const PeerJob& job, double deadline) override;
  // Stops every worker (their threads are joined).
  void stop();

 private:
  class Worker;
  mutable std::mutex mu_;
  Clock& clock_;
  uint64_t clusterId_;
  std::shared_ptr<std::atomic<double>> downUntil_ = std::make_shared<std::atomic<double>>(0);
  const SecurityContext* security_ = nullptr;
  std::map<int32_t, std::unique_ptr<Worker>> workers_;
};

}  // namespace qcr
