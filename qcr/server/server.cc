#include "qcr/server/server.h"

#include <algorithm>
#include <cerrno>

#include "basic/crash.h"
#include "basic/files.h"
#include "basic/interfaces.h"
#include "basic/log.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/hello.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_names.h"
#include "qcr/data/list_files.h"
#include "qcr/server/handlers.h"

namespace qcr {

namespace {

constexpr int kIdleWaitMs = 500;  // how often idle threads look at the stop flag
// How long the maintenance thread waits for a kick before it looks anyway. A wait
// in real time: it bounds how soon the thread looks again, nothing is decided by it.
constexpr auto kMaintenancePoll = std::chrono::seconds(1);

// This server's entry of the node list: its port, on an address of this machine
// (the only entry with its port, when none matches an address).
int32_t findSelf(const NodeList& nodes, int port) {
  std::vector<IpAddress16> local;
  (void)localInterfaceAddresses(&local);
  int32_t onlyPort = -1;
  int withPort = 0;
  for (const NodeEntry& n : nodes) {
    if (n.port != port) continue;
    ++withPort;
    onlyPort = n.id;
    PeerAddress address;
    if (resolve(n.addr, n.port, &address) != 0) continue;
    if (std::find(local.begin(), local.end(), address.ip) != local.end()) return n.id;
  }
  return withPort == 1 ? onlyPort : -1;
}

}  // namespace

Server::Server(ServerOptions options)
    : options_(std::move(options)),
      paths_(deriveRepoPaths(options_.baseDir)),
      store_(paths_.paxosFile, -1),
      replica_(&store_, -1, *options_.clock),
      peers_(0, *options_.clock),
      proposer_(&replica_, &peers_, options_.proposer, *options_.clock),
      files_(paths_.committedDir) {
  store_.setCrashPoint(options_.crashStore, options_.crashBytes);
  store_.setFullDiskFlag(options_.fullDiskFlag);
}

Server::~Server() { stop(); }

bool Server::holdsRepositoryFiles() const {
  std::vector<std::string> committed;
  return fileExists(paths_.nodesFile) || fileExists(paths_.disksFile) ||
         (listDirectory(paths_.committedDir, &committed) == 0 && !committed.empty());
}

int Server::start() {
  for (const std::string& dir : {paths_.base, paths_.committedDir}) {
    if (!isDirectory(dir)) {
      const int rc = makeDirectory(dir, 0755);
      if (rc != 0) {
        startProblem_ = "cannot create the directory " + dir + ": " + errText(rc);
        return rc;
      }
    }
  }
  setMsgCheckAssert(false);  // a malformed message ends its connection, not the server
  NodeList nodes;
  if (fileExists(paths_.nodesFile) && readNodeList(paths_.nodesFile, &nodes) == 0) {
    setNodeList(nodes);
  }
  int rc = replica_.load();
  if (rc != 0 && rc != ENOENT) {
    startProblem_ = "cannot start from the state in " + paths_.base + ": " + store_.findings();
    return rc;
  }
  // Repository files without a state: the state was lost or moved, which init
  // would paper over. Say so where an operator looks.
  if (rc == ENOENT && holdsRepositoryFiles()) {
    qcrLog(0, "qcrd: no state file in %s (qcr.paxos.1, qcr.paxos.2), although it holds "
              "repository files: waiting for init", paths_.base.c_str());
  }
  if (rc == 0) {
    peers_.setClusterId(replica_.clusterId());
    replica_.learnNames(FileStore::namesOf(replica_.view().committed, files_.list()));
  }
  PeerAddress any;  // :: takes IPv4 and IPv6 alike
  any.port = options_.port;
  int boundPort = 0;
  rc = listenSocket(any, &listenSock_, &boundPort);
  if (rc != 0) {
    startProblem_ = "cannot listen on port " + std::to_string(options_.port) + ": " + errText(rc);
    return rc;
  }
  options_.port = boundPort;
  updatePeers();
  proposer_.start();
  acceptThread_ = std::thread([this] {
    armCrashHandlerInThread();
    acceptLoop();
  });
  maintenanceThread_ = std::thread([this] {
    armCrashHandlerInThread();
    maintenanceLoop();
  });
  kick();
  qcrLog(1, "qcrd node %d listening on port %d (%s)", replica_.nodeId(), boundPort,
         replica_.initialised() ? "initialised" : "waiting for init");
  return 0;
}

void Server::stop() {
  if (stopping_.exchange(true)) return;
  if (acceptThread_.joinable()) acceptThread_.join();
  kick();
  if (maintenanceThread_.joinable()) maintenanceThread_.join();
  proposer_.stop();  // first: connection threads trying to lead give up at once
  reapConnections(true);
  peers_.stop();
  closeSocket(listenSock_);
  listenSock_ = -1;
}

void Server::acceptLoop() {
  while (!stopping_) {
    Hello reply;
    reply.nodeValue = replica_.nodeId();
    reply.clusterId = replica_.clusterId();
    std::unique_ptr<ConnImplementation> conn;
    Hello clientHello;
    const int rc = acceptConnection(listenSock_, kIdleWaitMs, reply, &conn, &clientHello);
    reapConnections(false);
    if (rc != 0) continue;
    const bool fromPeer = (clientHello.flags & kPeerHelloFlag) != 0;
    qcrLog(5, "accepted %s from %s", fromPeer ? "peer" : "client",
           addressText(conn->peerAddress()).c_str());
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard<std::mutex> lock(connMutex_);
    ConnImplementation* raw = conn.release();
    connThreads_.push_back({std::thread([this, raw, fromPeer, done] {
                              armCrashHandlerInThread();
                              serveConnection(std::unique_ptr<ConnImplementation>(raw), fromPeer);
                              *done = true;
                            }),
                            done});
  }
}

void Server::serveConnection(std::unique_ptr<ConnImplementation> conn, bool fromPeer) {
  while (!stopping_) {
    conn->setTimeouts(kIdleWaitMs, kIdleWaitMs);
    Message req;
    int rc = conn->receive(&req);
    if (rc == kErrTimedOut) continue;  // idle: look at the stop flag again
    if (rc != 0 || req.type == -1) break;
    conn->setTimeouts(kExchangeWaitMs, kExchangeWaitMs);
    if (handleRequest(*this, *conn, req, fromPeer) != 0) break;
  }
  conn->close();
}

void Server::reapConnections(bool all) {
  std::list<ConnThread> finished;
  {
    std::lock_guard<std::mutex> lock(connMutex_);
    for (auto it = connThreads_.begin(); it != connThreads_.end();) {
      if (all || *it->done) {
        finished.splice(finished.end(), connThreads_, it++);
      } else {
        ++it;
      }
    }
  }
  for (ConnThread& t : finished) t.thread.join();
}

int Server::nodeAddress(int32_t id, PeerAddress* addressP) {
  std::lock_guard<std::mutex> lock(nodesMutex_);
  for (const NodeEntry& n : nodes_) {
    if (n.id == id) return resolve(n.addr, n.port, addressP);
  }
  return ENOENT;
}

void Server::setNodeList(const NodeList& nodes) {
  std::lock_guard<std::mutex> change(listChangeMutex_);
  {
    std::lock_guard<std::mutex> lock(nodesMutex_);
    if (nodes == nodes_ && replica_.nodeId() >= 0) return;
    nodes_ = nodes;
  }
  if (const int rc = writeNodeList(paths_.nodesFile, nodes); rc != 0) {
    qcrLog(1, "setNodeList: writing %s failed (%d)", paths_.nodesFile.c_str(), rc);
  }
  const int32_t self = findSelf(nodes, options_.port);
  if (self != replica_.nodeId()) {
    qcrLog(4, "setNodeList: this server is node %d", self);
    replica_.setNodeId(self);
  }
  updatePeersLocked();
}

void Server::updatePeers() {
  std::lock_guard<std::mutex> change(listChangeMutex_);
  updatePeersLocked();
}

void Server::updatePeersLocked() {
  const ReplicaView view = replica_.view();
  std::map<int32_t, PeerAddress> peers;
  for (int32_t id : Proposer::members(view.committed)) {
    PeerAddress address;
    if (id != replica_.nodeId() && nodeAddress(id, &address) == 0) peers[id] = address;
  }
  peers_.setClusterId(view.clusterId);
  peers_.setPeers(peers);
}

void Server::kick() {
  std::lock_guard<std::mutex> lock(kickMutex_);
  kicked_ = true;
  kickCv_.notify_all();
}

void Server::maintenanceLoop() {
  uint64_t seen = ~uint64_t{0};
  double last = 0;
  while (!stopping_) {
    bool kicked;
    {
      std::unique_lock<std::mutex> lock(kickMutex_);
      kickCv_.wait_for(lock, kMaintenancePoll, [this] { return kicked_ || stopping_; });
      kicked = kicked_;
      kicked_ = false;
    }
    // Also when the files changed behind the handlers' backs (a catch-up), and now
    // and then to retry pulls that failed.
    const uint64_t epoch = replica_.fileEpoch();
    const double now = clock().now();
    if (stopping_ || !replica_.initialised() || (!kicked && epoch == seen && now - last < 10)) {
      continue;
    }
    seen = epoch;
    last = now;
    reconcile();
  }
}

void Server::reconcile() {
  const ReplicaView view = replica_.view();
  std::vector<CommittedFile> stored = files_.list();
  const auto missing = FileStore::missing(view.committed, stored);
  for (const auto& [objId, record] : missing) {
    if (stopping_) return;
    (void)pullFile(objId, record);
  }
  if (!missing.empty()) stored = files_.list();
  replica_.learnNames(FileStore::namesOf(view.committed, stored));
  files_.prune(view.committed, stored);
  // The committed node list is the source of the local one.
  const auto it = view.committed.files.find(kNodesFileObjId);
  for (const CommittedFile& f : stored) {
    if (it == view.committed.files.end() || f.objId != kNodesFileObjId ||
        f.version != it->second.version || f.uid != it->second.uid) {
      continue;
    }
    NodeList nodes;
    if (readNodeList(files_.pathOf(f.fileName), &nodes) == 0) setNodeList(nodes);
  }
  updatePeers();
}

}  // namespace qcr
