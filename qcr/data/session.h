// Process-wide settings of one run of the tool. The client prologue fills them once
// per run (base directory, port, node and disk lists, local node); the state-file
// code reads the cluster id and local node id from here and may adopt a cluster id
// learnt from a file. Single-threaded use: the command path sets and reads them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "basic/net.h"
#include "qcr/data/node_list.h"

namespace qcr {

inline constexpr int kDefaultServerPort = 1191;

// The files and directories of a repository, all derived from its base directory.
struct RepoPaths {
  std::string base;
  std::string cachedDir;      // base/cached
  std::string committedDir;   // base/committed
  std::string noauthFile;     // base/qcr.noauth
  std::string nodesFile;      // base/qcr.nodes
  std::string disksFile;      // base/qcr.disks
  std::string paxosFile;      // base/qcr.paxos; the two copies add ".1" and ".2"
  std::string cachedPaxosFile;  // base/cached/qcr.paxos
  // The committed certificate and key: under /var/vyfs/ssl in the product layout,
  // both base/qcr.pem in the test layout. Set by the client initialisation.
  std::string committedCert;
  std::string committedKey;
};

RepoPaths deriveRepoPaths(const std::string& baseDir);

struct Session {
  uint64_t clusterId = 0;  // 0 until known
  int32_t localNodeId = -1;  // -1: this machine is no quorum node
  std::string localNodeAddr;
  int32_t serverPort = kDefaultServerPort;
  RepoPaths paths;
  NodeList nodeList;
  DiskList diskList;
  bool nodeListValid = false;
  bool diskListValid = false;
  // Beside nodeList, rebuilt whenever the local node is settled: the resolved
  // address of each node by id, and the id by address.
  std::map<int32_t, PeerAddress> nodeAddrById;
  std::map<PeerAddress, int32_t> nodeIdByAddr;
};

// The one session of this process.
Session& session();

}  // namespace qcr
