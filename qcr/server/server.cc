#include "qcr/server/server.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "basic/background.h"
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

// The longest single wait of a hello or of a request's bytes, after which the
// stop flag is looked at again; also how often waiting connections are looked at.
constexpr int kIdleWaitMs = 500;
// How long a worker waits for a connection's next bytes before it gives the
// connection back to the poller, and how many requests it serves so at most.
constexpr int kLingerMs = 2;
constexpr int kLingerRequests = 64;
// Connections kept beyond ServerOptions::maxConnections for the cluster's own
// servers: one for each other quorum node.
constexpr int kPeerConnections = 8;
// The workers kept while there is no work, and how long one more than those
// waits for work before it ends.
constexpr int kKeptWorkers = 8;
constexpr double kSpareWorkerSeconds = 30;
// The pauses of the acceptor while accept fails for want of descriptors or
// memory: from the first, doubled on every further failure up to the last.
constexpr double kFirstAcceptPause = 0.05;
constexpr double kLongestAcceptPause = 1.0;
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

// How long the acceptor pauses after accept failed with error, the previous
// pause having been previous (0 after a success). A client that gave up before
// its connection was taken costs nothing; running out of descriptors or memory
// lasts until some connection ends, and trying again at once would only spin.
// Any other failure pauses too, in case it lasts.
double acceptPause(int error, double previous) {
  switch (error) {
    case ECONNABORTED:
    case EINTR:
    case EAGAIN:
    case EPROTO:
      return 0;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return std::clamp(previous * 2, kFirstAcceptPause, kLongestAcceptPause);
    default:
      return kFirstAcceptPause;
  }
}

}  // namespace

// An accepted connection: its socket until the hello is answered, the connection
// after. Served on the pool's workers, one at a time; looked at by its poller
// only between them.
class Server::Served final : public PooledConn {
 public:
  Served(Server& owner, int accepted, const PeerAddress& from)
      : server(owner),
        sock(accepted),
        peer(from),
        helloDeadline(owner.clock().now() + owner.options_.helloSeconds) {}
  ~Served() override {
    if (conn) {
      conn->close();
    } else {
      closeSocket(sock);
    }
    if (client) --server.clientConnections_;
  }
  int socket() const override { return conn ? conn->getSocket() : sock; }
  bool serve() override {
    // A new connection comes here at once: a client sends its hello right after
    // connecting, so it is waited for a moment; one slower than that waits in
    // the poller, up to its deadline.
    if (!conn && !waitReadable(sock, kLingerMs)) return true;
    bool more = conn ? server.serveRequest(*this) : server.serveHello(*this);
    // A client sends its request as soon as its hello is answered and closes
    // once it has its answer, and a peer's requests follow each other closely:
    // what arrives within a moment is served here, without the trip through the
    // poller and another worker.
    for (int i = 0; more && i < kLingerRequests && waitReadable(conn->getSocket(), kLingerMs); ++i) {
      more = server.serveRequest(*this);
    }
    // Answers kept while a peer's next requests waited go before the connection
    // waits again, or closes (a refusal kept while the refused body waited).
    if (conn && conn->flush() != 0) more = false;
    return more;
  }
  bool mayWait(double now) override {
    if (server.netDown()) {
      qcrLog(5, "connection from %s dropped: network down", addressText(peer).c_str());
      return false;
    }
    if (!conn) {
      if (now < helloDeadline) return true;
      qcrLog(4, "hello from %s failed (%d)", addressText(peer).c_str(), kErrTimedOut);
      return false;
    }
    if (now - lastRequest < server.options_.idleSeconds) return true;
    qcrLog(4, "closing connection from %s: idle for %.0f s", addressText(peer).c_str(),
           server.options_.idleSeconds);
    return false;
  }

  Server& server;
  int sock;  // -1 once the hello was answered or failed
  const PeerAddress peer;
  const double helloDeadline;  // on the server's clock
  std::unique_ptr<ConnImplementation> conn;
  bool client = false;  // counted in clientConnections_
  RequestOrigin origin;
  double lastRequest = 0;
};

Server::Server(ServerOptions options)
    : options_(std::move(options)),
      paths_(deriveRepoPaths(options_.baseDir)),
      security_(options_.baseDir),
      store_(paths_.paxosFile, -1),
      replica_(&store_, -1, *options_.clock),
      peers_(0, *options_.clock),
      proposer_(&replica_, &peers_, options_.proposer, *options_.clock),
      files_(paths_.committedDir),
      checkWorkers_(*options_.clock),
      pool_(ConnPool::Options{options_.maxConnections + kPeerConnections, kKeptWorkers,
                              kSpareWorkerSeconds, kIdleWaitMs},
            *options_.clock) {
  store_.setCrashPoint(options_.crashStore, options_.crashBytes);
  store_.setFullDiskFlag(options_.fullDiskFlag);
  proposer_.setDiskListSource([this](const CommittedState& committed, DiskList* listP) {
    return committedDiskList(committed, listP);
  });
}

Server::~Server() { stop(); }

bool Server::holdsRepositoryFiles() const {
  std::vector<std::string> committed;
  return fileExists(paths_.nodesFile) || fileExists(paths_.disksFile) ||
         (listDirectory(paths_.committedDir, &committed) == 0 && !committed.empty());
}

int Server::start() {
  // The layout setup makes: the cached directory is the tool's, on the same node.
  for (const std::string& dir : {paths_.base, paths_.committedDir, paths_.cachedDir}) {
    if (!isDirectory(dir)) {
      const int rc = makeDirectory(dir, 0755);
      if (rc != 0) {
        startProblem_ = "cannot create the directory " + dir + ": " + errText(rc);
        return rc;
      }
    }
  }
  setMsgCheckAssert(false);  // a malformed message ends its connection, not the server
  // Keys that do not load leave the server secured: it then authenticates nobody.
  (void)security_.reload();
  peers_.setSecurity(&security_.context());
  files_.removeLeftoverUploads();
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
  rc = pool_.start();
  if (rc != 0) {
    startProblem_ = std::string("cannot start the connection threads: ") + errText(rc);
    return rc;
  }
  updatePeers();
  proposer_.start();
  acceptThread_ = std::thread([this] {
    armCrashHandlerInThread();
    nameThisThread("qcrd-accept");
    acceptLoop();
  });
  maintenanceThread_ = std::thread([this] {
    armCrashHandlerInThread();
    nameThisThread("qcrd-maint");
    maintenanceLoop();
  });
  kick();
  qcrLog(1, "qcrd node %d listening on port %d (%s)", replica_.nodeId(), boundPort,
         replica_.initialised() ? "initialised" : "waiting for init");
  return 0;
}

void Server::stop() {
  if (stopping_.exchange(true)) return;
  {
    std::lock_guard<std::mutex> lock(pauseMutex_);
    pauseCv_.notify_all();
  }
  if (acceptThread_.joinable()) acceptThread_.join();
  kick();
  if (maintenanceThread_.joinable()) maintenanceThread_.join();
  proposer_.stop();  // first: requests trying to lead give up at once
  pool_.stop();
  peers_.stop();
  closeSocket(listenSock_);
  listenSock_ = -1;
}

void Server::acceptLoop() {
  double pause = 0;
  while (!stopping_) {
    int sock = -1;
    PeerAddress peer;
    const int rc = acceptSocket(listenSock_, kIdleWaitMs, &sock, &peer);
    if (rc == kErrTimedOut) continue;
    if (rc != 0) {
      ++acceptFailures_;
      pause = acceptPause(rc, pause);
      qcrLog(pause > 0 ? 1 : 4, "accept failed (%d); pausing %.2f s", rc, pause);
      pauseAccepting(pause);
      continue;
    }
    pause = 0;
    if (netDown()) {
      qcrLog(5, "connection from %s dropped: network down", addressText(peer).c_str());
      closeSocket(sock);
      continue;
    }
    const int added = pool_.add(std::make_unique<Served>(*this, sock, peer));
    if (added == EBUSY) {
      qcrLog(1, "connection from %s closed: %d connections served already",
             addressText(peer).c_str(), options_.maxConnections + kPeerConnections);
    } else if (added != 0) {
      qcrLog(1, "connection from %s closed (%d)", addressText(peer).c_str(), added);
    }
  }
}

// A wait in real time: nothing is decided by it, and stop() cuts it short.
void Server::pauseAccepting(double seconds) {
  if (seconds <= 0) return;
  std::unique_lock<std::mutex> lock(pauseMutex_);
  pauseCv_.wait_for(lock, std::chrono::duration<double>(seconds),
                    [this] { return stopping_.load(); });
}

bool Server::serveHello(Served& served) {
  const ServerSecurity::Snapshot secured = security_.snapshot();
  Hello reply;
  reply.nodeValue = replica_.nodeId();
  reply.clusterId = replica_.clusterId();
  reply.security = ServerSecurity::helloItem(secured);
  HelloDeadline limit;
  limit.clock = &clock();
  limit.deadline = served.helloDeadline;
  limit.sliceMs = kIdleWaitMs;
  limit.cancelled = [this] { return stopping_.load(); };
  // A client takes one of the first maxConnections places; the cluster's servers
  // may also take the places kept for them.
  limit.admit = [&](const Hello& h) {
    const bool peerHello = (h.flags & kPeerHelloFlag) != 0;
    if (peerHello && checkPeerOrigin(true, h.clusterId, served.peer) == 0) return true;
    served.client = true;
    if (clientConnections_.fetch_add(1) < options_.maxConnections) return true;
    qcrLog(1, "connection from %s closed: %d client connections served already",
           addressText(served.peer).c_str(), options_.maxConnections);
    return false;
  };
  Hello clientHello;
  const int sock = std::exchange(served.sock, -1);  // taken over, closed on failure
  const int rc = answerHello(sock, served.peer, reply, limit, &served.conn, &clientHello);
  if (rc != 0) {
    qcrLog(4, "hello from %s failed (%d)", addressText(served.peer).c_str(), rc);
    served.conn.reset();
    return false;
  }
  // The authentication exchange is held to the same limit as a hello.
  security_.guard(*served.conn, secured, clientHello, [this] {
    return AuthWaits{kAuthStepWaitMs, &clock(), clock().now() + options_.helloSeconds,
                     [this] { return stopping_.load(); }};
  });
  const bool fromPeer = (clientHello.flags & kPeerHelloFlag) != 0;
  qcrLog(5, "accepted %s from %s", fromPeer ? "peer" : "client",
         addressText(served.peer).c_str());
  served.origin = RequestOrigin{fromPeer, clock().now()};
  // A peer sends a commit and the next acceptance back to back: both answers go
  // in one write.
  served.conn->setKeepWhileMessagesWait(fromPeer);
  served.lastRequest = served.origin.openedAt;
  return !stopping_ && !netDown();
}

// Serves the request whose first bytes arrived. Its bytes may pause only briefly:
// a request cut off ends its connection, whose stream no longer holds messages.
bool Server::serveRequest(Served& served) {
  ConnImplementation& conn = *served.conn;
  conn.setTimeouts(kIdleWaitMs, kIdleWaitMs);
  Message req;
  int rc = conn.receive(&req);
  conn.setTimeouts(kExchangeWaitMs, kExchangeWaitMs);
  // A message that needs an authentication the connection lacks gets the
  // error before the connection closes.
  if (rc == E_NOT_AUTHORIZED || rc == E_NO_SECURITY) {
    qcrLog(1, "refusing '%s' from %s (%d)", msgName(req.type),
           addressText(served.peer).c_str(), rc);
    (void)replyFailed(conn, rc);
    return false;
  }
  if (rc == 0 && req.type != -1) rc = handleRequest(*this, conn, req, served.origin);
  // A message that does not parse gets the error before the connection closes.
  if (rc == E_ILL_FORMED_MSG) (void)replyFailed(conn, rc);
  if (rc != 0 || req.type == -1) return false;
  served.lastRequest = clock().now();
  return !stopping_ && !netDown();
}

void Server::takeOffNetwork(double seconds) {
  const double until = seconds > 0 ? clock().now() + seconds : 0;
  qcrLog(1, "network %s for %.0f s", seconds > 0 ? "down" : "up", seconds);
  netDownUntil_ = until;
  peers_.setDownUntil(until);
}

NodeList Server::nodeList() {
  std::lock_guard<std::mutex> lock(nodesMutex_);
  return nodes_;
}

bool Server::netDown() const { return clock().now() < netDownUntil_.load(); }

int Server::nodeAddress(int32_t id, PeerAddress* addressP) {
  std::lock_guard<std::mutex> lock(nodesMutex_);
  for (const NodeEntry& n : nodes_) {
    if (n.id == id) return resolve(n.addr, n.port, addressP);
  }
  return ENOENT;
}

int Server::checkPeer(const Connection& conn, bool peerHello, int32_t from) {
  return checkPeerOrigin(peerHello, conn.peerClusterId(), conn.peerAddress(), from);
}

int Server::checkPeerOrigin(bool peerHello, uint64_t clusterId, const PeerAddress& origin,
                            int32_t from) {
  if (!peerHello) return E_NOT_AUTHORIZED;
  const uint64_t cluster = replica_.clusterId();
  if (cluster == 0 || clusterId != cluster) return E_CLUSTER_MISMATCH;
  const int32_t self = replica_.nodeId();
  std::lock_guard<std::mutex> lock(nodesMutex_);
  for (const auto& [id, address] : nodeAddresses_) {
    if (id == self || address.ip != origin.ip) continue;
    if (from < 0 || from == id) return 0;
  }
  return E_NOT_AUTHORIZED;
}

void Server::setNodeList(const NodeList& nodes) {
  std::lock_guard<std::mutex> change(listChangeMutex_);
  {
    std::lock_guard<std::mutex> lock(nodesMutex_);
    if (nodes == nodes_ && replica_.nodeId() >= 0) return;
  }
  // Resolved once here, so that the check of every peer message needs no lookup.
  std::vector<std::pair<int32_t, PeerAddress>> addresses;
  for (const NodeEntry& n : nodes) {
    PeerAddress address;
    if (resolve(n.addr, n.port, &address) == 0) addresses.emplace_back(n.id, address);
  }
  {
    std::lock_guard<std::mutex> lock(nodesMutex_);
    nodes_ = nodes;
    nodeAddresses_ = std::move(addresses);
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

int Server::committedDiskList(const CommittedState& committed, DiskList* listP) {
  const auto it = committed.files.find(kDisksFileObjId);
  if (it == committed.files.end()) return ENOENT;
  const FileRecord& record = it->second;
  {
    std::lock_guard<std::mutex> lock(diskListMutex_);
    if (diskListRecord_.version == record.version && diskListRecord_.uid == record.uid &&
        record.version > 0) {
      *listP = diskList_;
      return 0;
    }
  }
  auto find = [&](std::string* pathP) {
    for (const CommittedFile& f : files_.list()) {
      if (f.objId == kDisksFileObjId && f.version == record.version && f.uid == record.uid) {
        *pathP = files_.pathOf(f.fileName);
        return true;
      }
    }
    return false;
  };
  std::string path;
  if (!find(&path)) {
    const int rc = pullFile(kDisksFileObjId, record);
    if (rc != 0) return rc;
    if (!find(&path)) return ENOENT;
  }
  DiskList list;
  if (const int rc = readDiskList(path, &list); rc != 0) return rc;
  std::lock_guard<std::mutex> lock(diskListMutex_);
  diskListRecord_ = record;
  diskList_ = list;
  *listP = std::move(list);
  return 0;
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
  // And the committed disk list of the local one.
  DiskList disks;
  DiskList local;
  if (committedDiskList(view.committed, &disks) == 0 &&
      (readDiskList(paths_.disksFile, &local) != 0 || local != disks)) {
    if (const int rc = writeDiskList(paths_.disksFile, disks); rc != 0) {
      qcrLog(1, "reconcile: writing %s failed (%d)", paths_.disksFile.c_str(), rc);
    }
  }
  updatePeers();
}

}  // namespace qcr
