#include "testing/cluster_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <thread>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/client/auth_keys.h"

namespace qcr::test {

namespace {

constexpr int kHelloMs = 2000;
constexpr int kWaitMs = 12000;  // a change may wait for a new leader

std::unique_ptr<Client> clientOfNodes(const NodeList& nodes, double budgetSeconds,
                                      const std::string& keysDir) {
  Session session;
  EXPECT_EQ(serversSession(nodes, &session), 0);
  session.retryBudgetSeconds = budgetSeconds;
  session.handshakeTimeoutMs = kHelloMs;
  session.waitMs = kWaitMs;
  auto client = std::make_unique<Client>(std::move(session));
  // Authenticated with the cluster's keys, or not at all.
  client->security().setSecurityOff(keysDir.empty() ? 1 : 0);
  if (!keysDir.empty()) {
    EXPECT_EQ(client->security().startup(false, keyFilePaths(keysDir)), 0);
  }
  return client;
}

}  // namespace

LocalCluster::LocalCluster(int nodes, int leaseMs)
    : dir_("qcrd-cluster-"),
      leaseMs_(leaseMs),
      clusterId_((uint64_t{std::random_device{}()} << 20) + 1),
      pids_(nodes, -1),
      paused_(nodes, false) {
  EXPECT_EQ(freeLoopbackPorts(nodes, &ports_), 0);
}

LocalCluster::~LocalCluster() {
  for (int i = 0; i < size(); ++i) kill(i);
  if (!testing::Test::HasFailure()) return;
  // What the servers said last, to explain the failure.
  for (int i = 0; i < size(); ++i) {
    for (const std::string& file : {base(i) + ".log", base(i) + "/qcrd.trace"}) {
      const std::string text = readFileText(file);
      const size_t from = text.size() > 6000 ? text.size() - 6000 : 0;
      fprintf(stderr, "---- %s\n%s\n", file.c_str(), text.substr(from).c_str());
    }
  }
  // Keep the servers' directories for a closer look; an empty one takes their place.
  const std::string kept = dir_.path() + ".kept";
  if (renameFile(dir_.path(), kept) == 0 && makeDirectory(dir_.path(), 0700) == 0) {
    fprintf(stderr, "---- server directories kept in %s\n", kept.c_str());
  }
}

std::string LocalCluster::base(int i) const { return dir_.file("node" + std::to_string(i + 1)); }

PeerAddress LocalCluster::address(int i) const { return ipv4Address(0x7F000001, ports_.at(i)); }

std::vector<PeerAddress> LocalCluster::addresses() const {
  std::vector<PeerAddress> all;
  for (int i = 0; i < size(); ++i) all.push_back(address(i));
  return all;
}

NodeList LocalCluster::nodeList(int n) const {
  NodeList nodes;
  for (int i = 0; i < n; ++i) {
    nodes.push_back({i + 1, 0, "node" + std::to_string(i + 1), "127.0.0.1", ports_[i]});
  }
  return nodes;
}

std::unique_ptr<Client> LocalCluster::client(double budgetSeconds) const {
  return clientOfNodes(nodeList(size()), budgetSeconds, secure_ ? keysDir() : "");
}

std::unique_ptr<Client> LocalCluster::clientOf(int i, double budgetSeconds) const {
  return clientOfNodes({nodeList(size()).at(i)}, budgetSeconds, secure_ ? keysDir() : "");
}

std::string LocalCluster::nodeListText(int n) const {
  std::string nodes;
  for (int i = 0; i < n; ++i) {
    nodes += std::to_string(i + 1) + ",0,127.0.0.1," + std::to_string(ports_[i]) + ",node" +
             std::to_string(i + 1) + "\n";
  }
  return nodes;
}

void LocalCluster::useDisks(int disks, int minQuorum) {
  disks_ = disks;
  minQuorum_ = minQuorum;
}

std::string LocalCluster::keysDir() const { return dir_.file("keys"); }

void LocalCluster::useSecurity() {
  KeyFiles files;
  ASSERT_EQ(CreateClusterKeys(clusterId_, &files), 0);
  for (int i = -1; i < size(); ++i) {
    const std::string dir = i < 0 ? keysDir() : base(i);
    if (!isDirectory(dir)) {
      ASSERT_EQ(makeDirectory(dir, 0755), 0);
    }
    ASSERT_EQ(writeKeyFiles(keyFilePaths(dir), files), 0);
  }
  secure_ = true;
}

std::string LocalCluster::diskPath(int i) const { return dir_.file("disk" + std::to_string(i + 1)); }

void LocalCluster::start(int members) {
  for (int i = 0; i < size(); ++i) startServer(i);
  const std::string nodesFile = dir_.file("qcr.nodes");
  ASSERT_EQ(writeFile(nodesFile, nodeListText(members > 0 ? members : size()), 0644, false), 0);
  std::vector<std::string> argv = {binPath("qcrd"), "--init-cluster", nodesFile, "--cluster-id",
                                   std::to_string(clusterId_)};
  if (secure_) argv.insert(argv.end(), {"--keys", keysDir()});
  if (disks_ > 0) {
    std::string paths;
    for (int i = 0; i < disks_; ++i) paths += (i > 0 ? "," : "") + diskPath(i);
    argv.insert(argv.end(), {"--disks", paths, "--min-quorum", std::to_string(minQuorum_)});
  }
  const ProgramResult init = runProgram(argv, cleanEnvironment(), 60000);
  ASSERT_EQ(init.exitCode, 0) << init.out << init.err;
}

void LocalCluster::startEmpty() {
  for (int i = 0; i < size(); ++i) startServer(i);
}

void LocalCluster::wipe(int i) {
  kill(i);
  ASSERT_EQ(removeTree(base(i)), 0);
}

void LocalCluster::startServer(int i, const std::vector<std::string>& extra, bool up) {
  ASSERT_LT(pids_[i], 0) << "server " << i << " runs already";
  const std::string dir = base(i);
  if (!isDirectory(dir)) {
    ASSERT_EQ(makeDirectory(dir, 0755), 0);
  }
  std::vector<std::string> argv = {binPath("qcrd"), "-P", std::to_string(ports_[i]), "--base", dir,
                                   "--lease", std::to_string(leaseMs_)};
  argv.insert(argv.end(), extra.begin(), extra.end());
  ASSERT_EQ(startBackground(argv, cleanEnvironment(), dir + ".log", &pids_[i]), 0);
  paused_[i] = false;
  if (up) {
    ASSERT_TRUE(waitUp(i, 20)) << "server " << i << " does not answer";
  }
}

void LocalCluster::kill(int i) {
  if (pids_[i] < 0) return;
  if (paused_[i]) (void)signalProcess(pids_[i], Signal::kContinue);
  (void)signalProcess(pids_[i], Signal::kKill);
  ChildStatus status;
  (void)waitBackground(pids_[i], 10000, &status);
  pids_[i] = -1;
  paused_[i] = false;
}

void LocalCluster::pause(int i) {
  ASSERT_EQ(signalProcess(pids_[i], Signal::kStop), 0);
  paused_[i] = true;
}

void LocalCluster::resume(int i) {
  ASSERT_EQ(signalProcess(pids_[i], Signal::kContinue), 0);
  paused_[i] = false;
}

ChildStatus LocalCluster::terminate(int i) {
  ChildStatus status;
  if (pids_[i] < 0) return status;
  (void)signalProcess(pids_[i], Signal::kTerminate);
  if (waitBackground(pids_[i], 10000, &status) != 0) {
    kill(i);
    return ChildStatus{};
  }
  pids_[i] = -1;
  return status;
}

ChildStatus LocalCluster::waitExit(int i, double seconds) {
  ChildStatus status;
  if (pids_[i] < 0) return status;
  if (waitBackground(pids_[i], static_cast<int>(seconds * 1000), &status) == 0) pids_[i] = -1;
  return status;
}

bool LocalCluster::waitUp(int i, double seconds) const {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  const std::unique_ptr<Client> probe = clientOf(i, 1);
  while (std::chrono::steady_clock::now() < until) {
    int status = 0;
    if (probe->STATUS(i + 1, &status) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int LocalCluster::leaderIndex() const {
  RequestResult r;
  EXPECT_EQ(client()->VGET(&r), 0);
  return r.state.leaderId - 1;
}

void LocalCluster::prepareToolBase(const TestBase& base, int n) const {
  ASSERT_EQ(writeFile(base.file("qcr.nodes"), nodeListText(n > 0 ? n : size()), 0644, false), 0);
  if (!isDirectory(base.file("committed"))) {
    ASSERT_EQ(makeDirectory(base.file("committed"), 0755), 0);
  }
  if (!secure_) {
    ASSERT_EQ(writeFile(base.file("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  }
}

int vput(Client& client, const std::string& name, const std::string& value, int32_t cond) {
  RequestResult r;
  return client.VPUT(name, value, -1, cond, &r);
}

std::string valueAt(Client& client, const std::string& name) {
  RequestResult r;
  const int rc = client.VGET(&r);
  if (rc != 0) return "<vget " + std::to_string(rc) + ">";
  const auto it = r.state.values.find(name);
  return it == r.state.values.end() ? "" : it->second.text;
}

std::string fileAt(Client& client, const ScopedTempDir& tmp, const std::string& name) {
  RequestResult r;
  const int rc = client.FGET(name, tmp.file("got"), -1, &r);
  return rc == 0 ? readFileText(tmp.file("got")) : "<fget " + std::to_string(rc) + ">";
}

}  // namespace qcr::test
