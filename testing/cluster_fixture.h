// A local qcrd cluster for end-to-end tests: N servers on free loopback ports,
// each with its base directory in one scoped temporary directory, initialised
// as one repository. The destructor kills every server it started (resuming
// paused ones first) and reaps it, so no test leaves a process behind.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "basic/background.h"
#include "basic/net.h"
#include "qcr/client/client.h"
#include "testing/run_program.h"

namespace qcr::test {

class LocalCluster final {
 public:
  // leaseMs is the leader's lease: short, so that take-overs happen quickly.
  explicit LocalCluster(int nodes, int leaseMs = 1000);
  ~LocalCluster();
  LocalCluster(const LocalCluster&) = delete;
  LocalCluster& operator=(const LocalCluster&) = delete;

  // Before start(): the repository gets disks tiebreaker disk files (in the
  // cluster's temporary directory, diskPath(0) ...) and needs minQuorum nodes
  // for a change alongside a majority of the disks.
  void useDisks(int disks, int minQuorum);
  // Before start(): the servers run secured with the key files of a key
  // generation made for this cluster, copied into every base directory and kept
  // in keysDir() (authorized_qcr_keys and qcr.pem), with which init and the
  // clients of client() and clientOf() authenticate.
  void useSecurity();
  std::string keysDir() const;
  std::string diskPath(int i) const;
  // Starts every server and makes the first `members` of them (all by default)
  // one repository; fails the test on error.
  void start(int members = 0);
  // Starts every server without making a repository of them: they wait for init.
  void startEmpty();
  // Kills server i and removes its base directory: a fresh machine.
  void wipe(int i);
  // The node list text of the first n servers (qcr.nodes format).
  std::string nodeListText(int n) const;
  int size() const { return static_cast<int>(ports_.size()); }
  std::string base(int i) const;
  PeerAddress address(int i) const;
  std::vector<PeerAddress> addresses() const;
  // A client without files of all servers (node ids 1..N, asked in that order
  // until it learnt a leader), or of server i alone; requests give up after
  // budgetSeconds, and a server that does not answer costs at most 2 s at the
  // hello and 12 s at a wait. Secured with keysDir() when the servers are.
  std::unique_ptr<Client> client(double budgetSeconds = 20) const;
  std::unique_ptr<Client> clientOf(int i, double budgetSeconds = 20) const;
  // The node list of the first n servers.
  NodeList nodeList(int n) const;
  // The index (0-based) of the server that leads now, as client() learns it.
  int leaderIndex() const;
  // Makes base the tool's base directory of the first n servers (all by
  // default): their node list, a committed directory and, unless the servers
  // run secured, the setting that turns security off. Fails the test on error.
  void prepareToolBase(const TestBase& base, int n = 0) const;
  // The repository's cluster id: drawn at random for each cluster, so that
  // clusters of tests running side by side refuse each other's messages should
  // one of them reuse a port another one had a moment ago.
  uint64_t clusterId() const { return clusterId_; }

  // Server i (0-based). startServer runs it with extra arguments and waits until
  // it answers (unless it is expected to end early).
  void startServer(int i, const std::vector<std::string>& extra = {}, bool waitUp = true);
  void kill(int i);
  void pause(int i);
  void resume(int i);
  // SIGTERM; returns how it ended (exit code -1 when it did not end in time).
  ChildStatus terminate(int i);
  // Waits up to seconds for server i to end by itself.
  ChildStatus waitExit(int i, double seconds);
  // Waits up to seconds for server i to answer a status request.
  bool waitUp(int i, double seconds) const;

 private:
  ScopedTempDir dir_;
  int leaseMs_;
  uint64_t clusterId_;
  std::vector<int> ports_;
  std::vector<int> pids_;
  std::vector<bool> paused_;
  int disks_ = 0;
  int minQuorum_ = 1;
  bool secure_ = false;
};

// Requests with the defaults the cluster tests use: no explicit version, no
// condition unless given.
int vput(Client& client, const std::string& name, const std::string& value, int32_t cond = -1);
// The committed value of name as the client's server serves it: "" when it does
// not exist, "<vget n>" when the read fails with n.
std::string valueAt(Client& client, const std::string& name);
// The committed content of file name as the client's server serves it, fetched
// into tmp: "<fget n>" when the fetch fails with n.
std::string fileAt(Client& client, const ScopedTempDir& tmp, const std::string& name);

}  // namespace qcr::test
