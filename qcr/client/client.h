// The client of a QCR repository: one object over an explicit session.
//
// A Client owns everything one user of the repository needs: its session
// (settings, node and disk lists, local node, cluster id), the client cache
// (server order and the cached committed state), its connection cache, its
// security state and the clock its retry schedule runs on. Two Clients in one
// process share nothing; the command path builds one per run, qcrd's cluster
// initialisation, the tests and the benchmarks as many as they need.
//
// With files: a session settled by the command prologue names a base directory;
// the cached state lives in base/cached/qcr.paxos and the committed node list is
// kept in step with base/qcr.nodes and the committed directory.
// Without files (a session from serversSession, empty base): the cache lives in
// memory only, PaxosInit orders the servers from it, and the committed node list
// is never pulled; the node list stays the one the session was built with.
// DISCOVER needs files.
//
// Requests (the protocol's own names) run the attempt loop over the servers in
// the client's order on the retry schedule (qcr/client/attempt.h). Every request
// logs its call and its outcome, returns 0 or a result code and hands its outputs
// back through *resultP, which it resets first. Change requests send an all-zero
// uid; the server assigns the real one. Versions are -1 for none (no explicit
// version, no condition). A loop that gave up returns 801 or 823.
//
// One thread uses a Client at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "basic/clock.h"
#include "qcr/client/attempt.h"
#include "qcr/client/client_cache.h"
#include "qcr/client/session.h"
#include "qcr/comm/conn_cache.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/comm/security.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/file_names.h"
#include "qcr/data/paxos_config.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

struct RequestResult {
  int32_t seq = -1;            // committed sequence number of state
  CommittedState state;        // the committed state the server answered with
  FileList files;              // FLIST: the names of the committed files
  int32_t fid = -1;            // FGET: object id of the fetched file
  int64_t fileSize = -1;       // FGET, BACKUP: byte count of the file received
  bool authoritative = false;  // QUERY: the server knows its state is current
  bool compressed = false;     // BACKUP: the archive is gzip-compressed
  std::string archivePath;     // BACKUP: where it was stored (".gz" dropped when plain)
  // Changes: the servers the request reached, successful or not. A change
  // request carries no identity of its own, so a server cannot tell a retry from
  // a new request: with more than one, an earlier attempt may also have been
  // applied (an unconditional change twice, a conditional one answered 805).
  int connections = 0;
};

class Client final {
 public:
  // The server order starts as the session's node list order; PaxosInit refines it.
  explicit Client(Session session = {}, Clock& clock = systemClock());
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  Session& repoSession() { return session_; }
  const Session& repoSession() const { return session_; }
  ClientCache& cache() { return cache_; }
  const ClientCache& cache() const { return cache_; }
  SecurityContext& security() { return security_; }
  Clock& clock() { return clock_; }
  bool keepsFiles() const { return !session_.paths.base.empty(); }

  // Told of the bytes of every file this client sends or receives (fput, fget),
  // when set; the caller keeps it alive while it is set.
  void setTransferProgress(TransferProgress* progress) { progress_ = progress; }
  TransferProgress* transferProgress() const { return progress_; }

  // Connection caching, off unless switched on: used connections then go back to
  // this client's cache after an end-of-records exchange.
  void setConnectionCaching(bool on) { caching_ = on; }
  CachedConnectionMap& connections() { return connections_; }
  // The cluster later connections must reach: 0 until a reply reported one.
  uint64_t expectedClusterId() const { return expectedClusterId_; }

  // Initialises the Paxos client: the ordering mode from QCR_SERVER_ORDERING when
  // set, the server order from the session's node list, and the cached committed
  // state (from the cached state file; a client without files keeps its
  // in-memory cache). update is set for requests that change the repository. 0,
  // or the error of loading the cached state (the servers then keep the node
  // list's order).
  [[nodiscard]] int PaxosInit(bool update);

  // ---- the repository requests ----
  // The whole committed state (values are looked up by the caller).
  [[nodiscard]] int VGET(RequestResult* resultP);
  [[nodiscard]] int VPUT(const std::string& name, const std::string& value, int32_t newVersion,
                         int32_t condVersion, RequestResult* resultP);
  [[nodiscard]] int VDEL(const std::string& name, int32_t condVersion, RequestResult* resultP);
  // Uploads the file at localPath as name. Fails with the file's status error,
  // before any server is asked, when its size cannot be read.
  [[nodiscard]] int FPUT(const std::string& name, const std::string& localPath,
                         int32_t newVersion, int32_t condVersion, int32_t quorumOption,
                         RequestResult* resultP);
  // The committed state and the names of its files.
  [[nodiscard]] int FLIST(RequestResult* resultP);
  // Fetches name into localPath (replaced only once the whole file arrived
  // intact). With condVersion the server answers 806 when its version equals it.
  // A localPath that holds anything but a regular file is refused before any
  // server is asked (checkFetchTarget in fetch.h: 21 or 22).
  [[nodiscard]] int FGET(const std::string& name, const std::string& localPath,
                         int32_t condVersion, RequestResult* resultP);
  [[nodiscard]] int FDEL(const std::string& name, int32_t condVersion, RequestResult* resultP);
  // Applies a configuration change computed from configuration version
  // configVersion (-1: from any).
  [[nodiscard]] int CONFIG(const ConfigChange& change, int32_t configVersion,
                           int32_t quorumOption, RequestResult* resultP);
  // The server's state and whether it could prove it current.
  [[nodiscard]] int QUERY(RequestResult* resultP);
  // Stores the repository's archive at localPath (fileSize, compressed,
  // archivePath: without ".gz" when the server could only send a plain one). A
  // server's refusal is final unless it is 808. Asks no server, and fails with 826,
  // when the session's cluster configuration file names a minimum release level
  // below kBackupReleaseLevel (or none).
  [[nodiscard]] int BACKUP(const std::string& localPath, bool compress, RequestResult* resultP);

  // Asks the servers (in the client's order) for their state and node list and
  // installs the node list as the session's and the local file. An answer that the
  // server could not prove current makes the client start over with the new node
  // list (a bounded number of times); a current one is kept as the cached state.
  // When this machine is a quorum node of the list and the answer was current, the
  // local server is asked whether it is ready (logged only). 0 or the error; 22
  // for a client without files.
  [[nodiscard]] int DISCOVER();

  // ---- requests to one server, once, without the attempt loop ----
  // The server is node nodeId of the session's node list, or the one at address
  // (a node that the session's list does not hold yet).
  // Makes the server part of a repository: 0, the server's refusal or the
  // connection's error.
  [[nodiscard]] int INIT(int nodeId, const InitRequest& request);
  [[nodiscard]] int INIT(const PeerAddress& address, const InitRequest& request);
  // The status the server reports: the first VarUInt of its ok answer. A failed
  // answer gives its refusal; any other answer, or a status that does not fit 32
  // bits, 818 (E_ILL_FORMED_MSG).
  [[nodiscard]] int STATUS(int nodeId, int* statusP);
  [[nodiscard]] int STATUS(const PeerAddress& address, int* statusP);

  // Makes list the session's node list and writes it as the local node list file
  // (when the client keeps files); the addresses are looked up again on demand.
  // 0 or the write's error, which leaves the session as it was.
  [[nodiscard]] int storeLocalNodeList(const NodeList& list);

  // ---- the machinery under the requests ----
  // A retry state named name over the current server order, clock and budget.
  RetryState newRetryState(const std::string& name);
  // Runs the attempt loop. The result is the final answer's (0 on success); when
  // the schedule gave up, the first remembered error or 801 if a connection was
  // ever made, else 823.
  [[nodiscard]] int runAttempts(RetryState* ctxP, const Exchange& exchange);
  // Opens a connection to the node with id serverId of the session's node list,
  // or to the server at address, with this client's cluster id, security and
  // connection cache.
  [[nodiscard]] int connectServer(int serverId, int connectTimeoutMs,
                                  std::unique_ptr<ConnImplementation>* connP);
  [[nodiscard]] int connectAddress(const PeerAddress& address, int connectTimeoutMs,
                                   std::unique_ptr<ConnImplementation>* connP);
  // Gives a used connection back (to the cache when caching is on).
  void releaseConnection(std::unique_ptr<ConnImplementation> conn);

  // Merges a received committed state with sequence number seq into the cache when
  // seq is newer and the leader, the node list or the cluster id changed: stores it
  // as the cached state and, when the node list changed, brings the local node
  // list file up to date. clusterId is the replying connection's (0 when unknown);
  // the first one seen becomes the expected cluster of later connections, and
  // counts as a change only when it differs from the session's (the cached state
  // file's).
  void updateClientCache(int32_t seq, const CommittedState& state, uint64_t clusterId);
  // Keeps state with sequence number seq as the cached state (file and cache).
  // 0 or the store's error, which leaves the cache as it was.
  [[nodiscard]] int storeCachedState(int32_t seq, const CommittedState& state);
  // Makes sure the committed directory holds the version of qcr.nodes that state
  // names; when it does not, pulls the committed node list from the servers (in
  // the client's order), keeps it in the committed directory, makes it the
  // session's node list and rewrites the local node list file. Failures are
  // logged and leave the local files as they were: the request that brought state
  // has succeeded regardless. A state without a committed node list, or a client
  // without files, changes nothing.
  void checkLocalNodesFile(const CommittedState& state);

 private:
  int serverAddress(int serverId, PeerAddress* addressP);
  // One request on a connection of its own; its answer is awaited answerWaitMs
  // at most (-1: the session's wait).
  int sendOnce(const PeerAddress& address, int msgType, const std::vector<uint8_t>& body,
               Message* replyP, int answerWaitMs = -1);

  Session session_;
  ClientCache cache_;
  SecurityContext security_;
  Clock& clock_;
  CachedConnectionMap connections_{"out"};
  bool caching_ = false;
  TransferProgress* progress_ = nullptr;
  uint64_t expectedClusterId_ = 0;
  // A pull of the node list brings a newer state of its own, which must not start
  // another pull.
  bool pullingNodes_ = false;
};

}  // namespace qcr
