// The session of one Client: the settings it runs with and what it knows of the
// repository's machines. The command prologue settles it from the base directory
// (qcr/cmd/prologue.h); qcrd's tooling, the tests and the benchmarks build one
// over explicit servers with serversSession.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "basic/net.h"
#include "qcr/comm/retry.h"
#include "qcr/data/node_list.h"
#include "qcr/data/repo_paths.h"

namespace qcr {

// Server ordering modes (QCR_SERVER_ORDERING): 0 always the read order, 1 always
// the change order, 2 by the kind of request.
inline constexpr int kOrderLocalFirst = 0;
inline constexpr int kOrderLeaderFirst = 1;
inline constexpr int kOrderByRequest = 2;

inline constexpr int kFirstPassConnectMs = 1000;
inline constexpr int kHandshakeTimeoutMs = 10000;

struct Session {
  uint64_t clusterId = 0;  // 0 until known
  int32_t localNodeId = -1;  // -1: this machine is no quorum node
  std::string localNodeAddr;
  int32_t serverPort = kDefaultServerPort;
  // The repository's files on this machine; an empty base means the client keeps
  // no files (see Client).
  RepoPaths paths;
  NodeList nodeList;
  DiskList diskList;
  bool nodeListValid = false;
  bool diskListValid = false;
  // Beside nodeList, rebuilt whenever the local node is settled: the resolved
  // address of each node by id, and the id by address.
  std::map<int32_t, PeerAddress> nodeAddrById;
  std::map<PeerAddress, int32_t> nodeIdByAddr;
  int32_t serverOrdering = kOrderByRequest;
  // How long a request keeps trying, and the waits of its connections: the hello
  // after connecting, and each later send or receive (-1: the socket defaults).
  double retryBudgetSeconds = kRetryBudgetSeconds;
  int handshakeTimeoutMs = kHandshakeTimeoutMs;
  int waitMs = -1;
};

// A session over the servers of nodes (numeric addresses), keeping no files: no
// local node, the addresses resolved into the lookup tables. 0 or the first
// lookup error.
[[nodiscard]] int serversSession(const NodeList& nodes, Session* sessionP);

}  // namespace qcr
