// Servers started by a benchmark on loopback, each in its own directory under one
// temporary directory, and ended (SIGKILL, reaped) with the object.
#pragma once

#include <string>
#include <vector>

#include "basic/net.h"

namespace qcr::bench {

class LocalServers final {
 public:
  LocalServers();
  ~LocalServers();
  LocalServers(const LocalServers&) = delete;
  LocalServers& operator=(const LocalServers&) = delete;

  // A qcrd cluster of n servers made one repository: 0 or an error. With
  // keysDir, the servers run secured with the key files found there.
  [[nodiscard]] int startQcrd(const std::string& binDir, int n, const std::string& keysDir = "");
  // An etcd cluster of n members (the etcd program on PATH): 0 or an error.
  [[nodiscard]] int startEtcd(int n);
  const std::vector<PeerAddress>& clientAddresses() const { return clients_; }
  // Stops the qcrd servers (SIGTERM) and returns, for each, where the time of
  // the changes it handled went (its "synod times" line; empty when none).
  std::vector<std::string> stopQcrd();

 private:
  int spawn(const std::vector<std::string>& argv, const std::string& log);

  std::string dir_;
  std::vector<int> pids_;
  std::vector<PeerAddress> clients_;
};

}  // namespace qcr::bench
