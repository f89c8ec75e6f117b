// qcrd: one replica of a QCR repository serving the tool and its peer servers.
//
// start() loads the state (or waits for init), listens on the port and starts
// the acceptor, the connection pool, the lease thread and the maintenance
// thread. The acceptor only accepts and gives each connection to the pool,
// whose one poller thread watches the connections that wait for their hello or
// their next request and whose reused workers serve each hello or request as it
// arrives (see conn_pool.h): a waiting connection holds no thread. The hello
// must be complete within helloSeconds of the accept; a connection without a
// request for idleSeconds is closed. At most maxConnections are served at once;
// one more is closed as soon as it is accepted. When accept fails for want of
// descriptors or memory, the acceptor pauses before it tries again. A few
// connections more are kept for the cluster's own servers, so that clients cannot
// crowd out the agreement: a client's connection beyond maxConnections is closed
// once its hello shows it is no peer. stop() ends all of them and returns once
// they are gone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basic/clock.h"
#include "qcr/comm/connection.h"
#include "qcr/data/node_list.h"
#include "qcr/data/repo_paths.h"
#include "qcr/server/conn_pool.h"
#include "qcr/server/disk_paxos.h"
#include "qcr/server/file_store.h"
#include "qcr/server/peer_link.h"
#include "qcr/server/peers.h"
#include "qcr/server/proposer.h"
#include "qcr/server/replica.h"
#include "qcr/server/server_security.h"
#include "qcr/server/state_store.h"

namespace qcr {

struct ServerOptions {
  int port = kDefaultServerPort;
  std::string baseDir;
  ProposerOptions proposer;
  // The clock of every lease, schedule and time-out; it outlives the server.
  Clock* clock = &systemClock();
  // Connections served at once; one more is closed as soon as it is accepted.
  int maxConnections = 256;
  // A connection's whole hello must arrive within this time (seconds on clock).
  double helloSeconds = 5;
  // A connection without a request for this long is closed (seconds on clock).
  // Long enough for a client's connection cache to keep its connections.
  double idleSeconds = 300;
  // How long after its request arrived a change may still be proposed; clients
  // wait longer than this for the answer before they ask another server.
  double changePatienceSeconds = 10;
  // The status this server reports: 2, serving; with joined 4, which says that
  // the file system daemon of its machine has joined its cluster (qcrd has none
  // of its own: tests and set-ups that have one say so).
  bool joined = false;
  // Whether sh, cp_to and cp_from are served on a connection that did not
  // authenticate (a server without security). Off unless asked for.
  bool allowRemote = false;
  // Fault injection for tests (StateStore::setCrashPoint).
  int crashStore = 0;
  int64_t crashBytes = 0;
  // Fault injection for tests (StateStore::setFullDiskFlag).
  std::string fullDiskFlag;
};

class Server final {
 public:
  explicit Server(ServerOptions options);
  ~Server();

  // 0, or the error of loading the state or of listening; startProblem() then
  // says in words what failed and on which path. A base directory that holds
  // repository files but no state file is reported loudly (standard error and
  // trace) while the server waits for init; an empty one is the quiet case.
  [[nodiscard]] int start();
  const std::string& startProblem() const { return startProblem_; }
  void stop();
  // The port listened on (the one picked, for port 0), once started.
  int port() const { return options_.port; }
  // For tests: connections served now, the most served at once so far, and the
  // failed accepts so far.
  int connectionCount() { return pool_.size(); }
  int peakConnections() { return pool_.peak(); }
  uint64_t acceptFailures() const { return acceptFailures_; }

  // ---- for the request handlers ----
  Replica& replica() { return replica_; }
  Proposer& proposer() { return proposer_; }
  PeerSet& peers() { return peers_; }
  FileStore& files() { return files_; }
  ServerSecurity& security() { return security_; }
  const RepoPaths& paths() const { return paths_; }
  Clock& clock() const { return *options_.clock; }
  double changePatience() const { return options_.changePatienceSeconds; }
  bool joined() const { return options_.joined; }
  bool allowRemote() const { return options_.allowRemote; }
  // The address of node id in the node list: 0, or ENOENT.
  [[nodiscard]] int nodeAddress(int32_t id, PeerAddress* addressP);
  // Whether conn may carry server-to-server messages: its hello carried the peer
  // flag (peerHello) and this cluster's id, and it comes from the address (any
  // port) of a node of the node list other than this server; from, when not
  // negative, must be such a node. 0; 315 for another cluster id; 703 otherwise.
  [[nodiscard]] int checkPeer(const Connection& conn, bool peerHello, int32_t from = -1);
  // The same check on what a hello announced and the address it came from.
  [[nodiscard]] int checkPeerOrigin(bool peerHello, uint64_t clusterId, const PeerAddress& origin,
                                    int32_t from = -1);
  // Takes a node list from init or from the committed qcr.nodes: writes the local
  // list file, settles this server's node id, and rebuilds the peers. Any thread;
  // concurrent calls take effect one after the other.
  void setNodeList(const NodeList& nodes);
  // Asks the maintenance thread to bring the local files in line with the state.
  void kick();
  // Fetches a missing committed file from a peer (fxfer pull). 0 or an error.
  [[nodiscard]] int pullFile(int32_t objId, const FileRecord& record);
  // The disk list of the committed qcr.disks of committed, from the committed
  // directory (pulled from a peer when missing). 0, ENOENT when committed has no
  // disk list, or the error of reading or pulling it. Any thread.
  [[nodiscard]] int committedDiskList(const CommittedState& committed, DiskList* listP);

  // ---- server control ----
  // The node list this server works with now. Any thread.
  NodeList nodeList();
  // Takes the server off the network for seconds (0: back at once): until then
  // every connection, client and peer, is dropped as soon as it is accepted or
  // its current request is answered, and this server opens none to its peers.
  // It comes back by itself. Any thread.
  void takeOffNetwork(double seconds);
  bool netDown() const;
  // Asks the process that runs the server to stop it (quit); any thread.
  void requestQuit() { quitRequested_ = true; }
  bool quitRequested() const { return quitRequested_; }
  // The workers that run the check of the tiebreaker disks, with deadlines, so
  // that a hung disk delays the check only by its deadline.
  DiskWorkers& checkWorkers() { return checkWorkers_; }

 private:
  void acceptLoop();
  void pauseAccepting(double seconds);
  // One accepted connection in the pool (server.cc).
  class Served;
  [[nodiscard]] bool serveHello(Served& served);
  [[nodiscard]] bool serveRequest(Served& served);
  void maintenanceLoop();
  void reconcile();
  void updatePeers();
  void updatePeersLocked();

  bool holdsRepositoryFiles() const;

  ServerOptions options_;
  RepoPaths paths_;
  ServerSecurity security_;
  std::string startProblem_;
  StateStore store_;
  Replica replica_;
  PeerSet peers_;
  Proposer proposer_;
  FileStore files_;
  int listenSock_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> quitRequested_{false};
  std::atomic<double> netDownUntil_{0};  // seconds on the clock; 0: never down
  DiskWorkers checkWorkers_;
  std::thread acceptThread_;
  std::thread maintenanceThread_;
  // Node list and the peers derived from it. listChangeMutex_ (taken first)
  // serialises the changes of the list, of the node id and of the peer set, so
  // that the list file, the node id and the peers follow the latest list even when
  // init (a worker serving a request) and the maintenance thread change it at once;
  // nodesMutex_ guards nodes_ for the readers.
  std::mutex listChangeMutex_;
  std::mutex nodesMutex_;
  NodeList nodes_;
  // The resolved address of each node of nodes_ that resolved, by node id.
  std::vector<std::pair<int32_t, PeerAddress>> nodeAddresses_;
  // The last committed disk list read, and its file's version and uid.
  std::mutex diskListMutex_;
  FileRecord diskListRecord_;
  DiskList diskList_;
  // Maintenance requests.
  std::mutex kickMutex_;
  std::condition_variable kickCv_;
  bool kicked_ = false;
  // The connections and the threads that serve them.
  ConnPool pool_;
  std::atomic<int> clientConnections_{0};  // connections past the hello that are no peer's
  std::atomic<uint64_t> acceptFailures_{0};
  // Wakes the acceptor from a pause when the server stops.
  std::mutex pauseMutex_;
  std::condition_variable pauseCv_;
};

}  // namespace qcr
