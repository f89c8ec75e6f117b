#include "bench/local_servers.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "basic/background.h"
#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/comm/security.h"

namespace qcr::bench {

namespace {

constexpr uint32_t kLoopback = 0x7F000001;

bool waitListening(const PeerAddress& address, double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < until) {
    int sock = -1;
    if (openStreamSocket(address, &sock) == 0) {
      const int rc = connectSocket(sock, address, 200);
      closeSocket(sock);
      if (rc == 0) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

}  // namespace


LocalServers::LocalServers() {
  if (makeTempDir("qcrd-bench-", &dir_) != 0) dir_.clear();
}

LocalServers::~LocalServers() {
  for (int pid : pids_) {
    (void)signalProcess(pid, Signal::kKill);
    ChildStatus status;
    (void)waitBackground(pid, 10000, &status);
  }
  if (!dir_.empty()) (void)removeTree(dir_);
}

std::vector<std::string> LocalServers::stopQcrd() {
  std::vector<std::string> reports;
  for (size_t i = 0; i < pids_.size(); ++i) {
    (void)signalProcess(pids_[i], Signal::kTerminate);
    ChildStatus status;
    if (waitBackground(pids_[i], 10000, &status) == 0) pids_[i] = -1;
    std::string log;
    (void)readFile(dir_ + "/qcrd" + std::to_string(i + 1) + ".log", &log);
    const size_t at = log.rfind("synod times");
    reports.push_back(at == std::string::npos ? "" : log.substr(at, log.find('\n', at) - at));
  }
  std::erase(pids_, -1);
  return reports;
}

int LocalServers::spawn(const std::vector<std::string>& argv, const std::string& log) {
  int pid = -1;
  const int rc = startBackground(argv, {}, log, &pid);
  if (rc == 0) pids_.push_back(pid);
  return rc;
}

int LocalServers::startQcrd(const std::string& binDir, int n, const std::string& keysDir) {
  if (dir_.empty()) return EIO;
  std::string nodes;
  std::vector<int> ports;
  if (const int rc = freeLoopbackPorts(n, &ports); rc != 0) return rc;
  for (int i = 1; i <= n; ++i) {
    const int port = ports[static_cast<size_t>(i - 1)];
    const std::string base = dir_ + "/qcrd" + std::to_string(i);
    int rc = makeDirectory(base, 0755);
    KeyFiles keys;
    if (rc == 0 && !keysDir.empty()) rc = readKeyFiles(keyFilePaths(keysDir), &keys);
    if (rc == 0 && !keysDir.empty()) rc = writeKeyFiles(keyFilePaths(base), keys);
    if (rc == 0) rc = spawn({binDir + "/qcrd", "-P", std::to_string(port), "--base", base, "--synod-times"},
                              base + ".log");
    if (rc != 0) return rc;
    clients_.push_back(ipv4Address(kLoopback, port));
    nodes += std::to_string(i) + ",0,127.0.0.1," + std::to_string(port) + ",node" + std::to_string(i) + "\n";
  }
  for (const PeerAddress& a : clients_) {
    if (!waitListening(a, 20)) return ETIMEDOUT;
  }
  const std::string nodesFile = dir_ + "/qcr.nodes";
  int rc = writeFile(nodesFile, nodes, 0644, false);
  ChildStatus status;
  CapturedRun run;
  if (rc == 0) {
    std::vector<std::string> argv = {binDir + "/qcrd", "--init-cluster", nodesFile, "--cluster-id", "99"};
    if (!keysDir.empty()) argv.insert(argv.end(), {"--keys", keysDir});
    rc = runCaptured(argv, {}, 60000, &run);
  }
  return rc != 0 ? rc : run.status.exitCode == 0 ? 0 : EIO;
}

int LocalServers::startEtcd(int n) {
  if (dir_.empty()) return EIO;
  std::vector<int> ports, clientPorts, peerPorts;
  if (const int rc = freeLoopbackPorts(2 * n, &ports); rc != 0) return rc;
  std::string initial;
  for (int i = 1; i <= n; ++i) {
    clientPorts.push_back(ports[static_cast<size_t>(2 * i - 2)]);
    peerPorts.push_back(ports[static_cast<size_t>(2 * i - 1)]);
    initial += (i > 1 ? "," : "") + ("e" + std::to_string(i)) + "=http://127.0.0.1:" +
               std::to_string(peerPorts.back());
  }
  for (int i = 0; i < n; ++i) {
    const std::string name = "e" + std::to_string(i + 1);
    const std::string client = "http://127.0.0.1:" + std::to_string(clientPorts[i]);
    const std::string peer = "http://127.0.0.1:" + std::to_string(peerPorts[i]);
    const int rc = spawn({"/usr/bin/etcd", "--name", name, "--data-dir", dir_ + "/" + name,
                          "--listen-client-urls", client, "--advertise-client-urls", client,
                          "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
                          "--initial-cluster", initial, "--initial-cluster-state", "new",
                          "--initial-cluster-token", "qcrd-bench", "--log-level", "error"},
                         dir_ + "/" + name + ".log");
    if (rc != 0) return rc;
    clients_.push_back(ipv4Address(kLoopback, clientPorts[i]));
  }
  for (const PeerAddress& a : clients_) {
    if (!waitListening(a, 30)) return ETIMEDOUT;
  }
  return 0;
}

}  // namespace qcr::bench
