// The files and directories of a repository, all derived from its base directory,
// and the built-in server port that names the default one.
#pragma once

#include <string>

namespace qcr {

inline constexpr int kDefaultServerPort = 1191;

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
  // The cluster configuration file (its minimum release level): under /var/vyfs/gen
  // in the product layout, base/vysdrfs in the test layout. Set by the client
  // initialisation; empty for a client without files.
  std::string clusterConfigFile;
};

RepoPaths deriveRepoPaths(const std::string& baseDir);

}  // namespace qcr
