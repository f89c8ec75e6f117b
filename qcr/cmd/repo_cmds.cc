// setup, init and backup: preparing a node, making a repository from lists or
// from an archive, and saving one.
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"
#include "basic/tempdir.h"
#include "qcr/client/auth_keys.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/member_lists.h"
#include "qcr/cmd/member_requests.h"
#include "qcr/cmd/prologue.h"
#include "qcr/cmd/repo_init.h"
#include "qcr/cmd/usage.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/comm/security.h"
#include "qcr/data/archive.h"
#include "qcr/data/list_files.h"
#include "qcr/data/paxos_config.h"

namespace qcr {
namespace {

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The directory an archive is unpacked into: new, private, inside the base
// directory, removed with everything in it when the command ends.
class RestoreDir {
 public:
  ~RestoreDir() {
    if (!path_.empty()) (void)removeTree(path_);
  }
  int make(const std::string& base) {
    for (int attempt = 0; attempt < 100; ++attempt) {
      const std::string path = base + "/tar_" + std::to_string(currentProcessId()) + "_" +
                               std::to_string(attempt) + "_qcr";
      const int rc = makeDirectory(path, 0700);
      if (rc == 0) {
        path_ = path;
        return 0;
      }
      if (rc != EEXIST) return rc;
    }
    return EEXIST;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The committed state an archive carries, when it carries one.
int readRestoredState(const std::string& dir, CommittedState* stateP) {
  const std::string path = dir + "/qcr.state";
  if (!fileExists(path)) return 0;
  std::string data;
  int rc = readFile(path, &data);
  if (rc != 0) return rc;
  return decodeBody(reinterpret_cast<const uint8_t*>(data.data()), data.size(), stateP);
}

// init from an archive, steps up to the node list: unpack it, read its lists
// and its state. Prints the failure and returns its code.
int unpackArchive(const std::string& archive, RestoreDir& dir, const std::string& base,
                  RepositoryPlan* planP) {
  printf("Using '%s' to initialize QCR\n", archive.c_str());
  fflush(stdout);
  if (!fileExists(archive)) {
    fprintf(stderr, "Backup file '%s' does not exist (%d)\n", archive.c_str(), ENOENT);
    return ENOENT;
  }
  ArchiveTools tools;
  int rc = findArchiveTools(archiveCandidates(), &tools);
  if (rc != 0) {
    fprintf(stderr, "No path to tar-tool to extract '%s' (%d)\n", archive.c_str(), rc);
    return rc;
  }
  rc = dir.make(base);
  if (rc == 0) rc = extractArchive(tools, archive, dir.path());
  if (rc == 0) rc = readRestoredState(dir.path(), &planP->restored);
  if (rc != 0) {
    fprintf(stderr, "Extracting '%s' to initialize QCR failed (%d)\n", archive.c_str(), rc);
    return rc;
  }
  planP->fromArchive = true;
  planP->restoreDir = dir.path();
  // Without -c the archive's repository is made again under its own id, so that
  // running the same init once more reaches the servers it missed.
  std::string cluster;
  if (planP->clusterId == 0 && readFile(dir.path() + "/qcr.cluster", &cluster) == 0) {
    planP->clusterId = readUInt64(cluster);
  }
  return 0;
}

int settleNodes(CommandContext& ctx, RepositoryPlan* planP) {
  int rc = 0;
  if (planP->fromArchive) {
    const std::string path = planP->restoreDir + "/qcr.nodes";
    rc = readNodeList(path, &planP->nodes);
    qcrLog(4, "Read nodes from '%s' (%d)", path.c_str(), rc);
  } else {
    std::string messages;
    rc = parseNodeList(ctx.cmd.nodeList, {}, ctx.client.repoSession().serverPort,
                       resolveHostAddress, &planP->nodes, &messages);
    fputs(messages.c_str(), stderr);
  }
  if (rc == 0 && planP->nodes.empty()) rc = E_NODES_FILE;
  if (rc != 0) {
    fprintf(stderr, "get node list failed (err %d)\n", rc);
    return rc;
  }
  printf("qcr server nodes to be initialized:\n");
  for (const NodeEntry& n : planP->nodes) printf("%d %s %s\n", n.id, n.addr.c_str(), n.name.c_str());
  if (planP->nodes.size() > MaxPaxosSlots) {
    fprintf(stderr, "Too namy nodes (max %d)\n", MaxPaxosSlots);
    return EINVAL;
  }
  return 0;
}

int settleDisks(CommandContext& ctx, RepositoryPlan* planP) {
  int rc = 0;
  if (planP->fromArchive) {
    const std::string path = planP->restoreDir + "/qcr.disks";
    if (fileExists(path)) rc = readDiskList(path, &planP->disks);
    qcrLog(4, "Read disks from '%s' (%d)", path.c_str(), rc);
  } else if (!ctx.cmd.diskList.empty()) {
    std::string messages;
    rc = parseDiskList(ctx.cmd.diskList, ctx.cmd.disksDir, &planP->disks, &messages);
    fputs(messages.c_str(), stderr);
  }
  if (rc != 0) {
    fprintf(stderr, "get disk list failed (err %d)\n", rc);
    return rc;
  }
  if (!planP->disks.empty()) {
    printf("qcr shared disks to be initialized:\n");
    for (const DiskEntry& d : planP->disks) printf("%d %s\n", d.id, d.label.c_str());
  }
  return 0;
}

// The client side of the session: the directories (created when missing), and
// security as the security mode file sets it.
int initSession(CommandContext& ctx, int createMode) {
  Client& client = ctx.client;
  int rc = clientIoInit(&client.repoSession(), ctx.settings.serverPort, createMode, true);
  if (rc != 0) {
    fprintf(stderr, "qcrio initialization failed (err %d)\n", rc);
    return rc;
  }
  const int securityMode = readSecurityMode(client.repoSession().paths.noauthFile);
  ctx.settings.securityMode = securityMode;
  client.security().setSecurityOff(securityMode);
  if (client.security().enabled()) {
    rc = ClientSecurityInit(client);
    if (rc != 0) fprintf(stderr, "security initialization failed (err %d)\n", rc);
  }
  return rc;
}

}  // namespace

int SetupCommand(CommandContext& ctx) {
  const CommandLine& cmd = ctx.cmd;
  // The -a value turns security off when it is not 0; with security on, the
  // certificate is needed. Asked before anything is created.
  const int securityOff = ctx.settings.securityMode;
  if (securityOff == 0 && cmd.certFile.empty()) {
    (void)usageError(Personality::kMain, ctx.settings.programName, "-c paramter missing");
    return kHandlerUsageError;
  }
  Client& client = ctx.client;
  const int createMode = cmd.force ? kCreateNew + 1 : cmd.forceRestore ? kCreateMissing : kCreateNew;
  int rc = clientIoInit(&client.repoSession(), ctx.settings.serverPort, createMode, false);
  if (rc != 0) {
    fprintf(stderr, "qcrio initialization failed (err %d)\n", rc);
    return rc;
  }
  const std::string& path = client.repoSession().paths.noauthFile;
  const std::string bytes(reinterpret_cast<const char*>(&securityOff), sizeof securityOff);
  rc = writeFile(path, bytes, 0644, true);
  if (rc == ENOENT || rc == EACCES || rc == ENOTDIR || rc == ELOOP || rc == EISDIR) {
    fprintf(stderr, "SetupCommand: file %s not found\n", path.c_str());
    return rc;
  }
  if (rc != 0) {
    fprintf(stderr, "SetupCommand: failed to write to %s\n", path.c_str());
    return rc;
  }
  client.security().setSecurityOff(securityOff);
  Session& s = client.repoSession();
  // With security on, the file -c names becomes this node's committed key store
  // (its key and certificate).
  if (client.security().enabled()) {
    std::string store;
    rc = readFile(cmd.certFile, &store);
    if (rc != 0) {
      fprintf(stderr, "SetupCommand: file %s not found\n", cmd.certFile.c_str());
      return rc;
    }
    const std::string target = keyFilePaths(s.paths.base).committedStore;
    rc = writeFile(target, store, 0600, true);
    if (rc != 0) {
      fprintf(stderr, "SetupCommand: failed to write to %s\n", target.c_str());
      return rc;
    }
  }
  if (!cmd.nodeList.empty()) {
    if (client.security().enabled()) {
      rc = ClientSecurityInit(client);
      if (rc != 0) {
        fprintf(stderr, "security initialization failed (err %d)\n", rc);
        return rc;
      }
    }
    NodeList nodes;
    std::string messages;
    rc = parseNodeList(cmd.nodeList, s.nodeList, s.serverPort, resolveHostAddress, &nodes,
                       &messages);
    fputs(messages.c_str(), stderr);
    if (rc != 0) return rc;
    rc = client.storeLocalNodeList(nodes);
    QCR_ASSERT_MSG(rc == E_OK, "err == E_OK");
  }
  // A node that knows no nodes yet gets its list when the repository is made.
  if (s.nodeList.empty()) return 0;
  (void)client.PaxosInit(true);
  uint64_t clusterId = 0;
  CommittedState state;
  NodeList committed;
  return getCurrentNodeList(client, &clusterId, &state, &committed);
}

int InitCommand(CommandContext& ctx) {
  const CommandLine& cmd = ctx.cmd;
  if (cmd.nodeList.empty() && cmd.archivePath.empty()) {
    (void)usageError(Personality::kMain, ctx.settings.programName, "node list is empty");
    return kHandlerUsageError;
  }
  int rc = initSession(ctx, kCreateMissing);
  if (rc != 0) return rc;
  Session& s = ctx.client.repoSession();
  RepositoryPlan plan;
  plan.clusterId = cmd.clusterId;
  plan.minQuorumNodes = cmd.minQuorumNodes;
  RestoreDir restoreDir;
  if (!cmd.archivePath.empty()) {
    rc = unpackArchive(cmd.archivePath, restoreDir, s.paths.base, &plan);
    if (rc != 0) return rc;
    // The archive's minimum quorum goes with its disks.
    if (plan.restored.config.minNodes > 0) plan.minQuorumNodes = plan.restored.config.minNodes;
  }
  // Servers tell repositories apart by their id, and 0 names none: a repository
  // made without one gets a new one.
  while (plan.clusterId == 0) {
    std::random_device random;
    plan.clusterId = (uint64_t{random()} << 32) | random();
  }
  qcrLog(1, "cluster id %llu", static_cast<unsigned long long>(plan.clusterId));
  rc = settleNodes(ctx, &plan);
  if (rc == 0) rc = settleDisks(ctx, &plan);
  if (rc != 0) return rc;
  std::string messages;
  rc = checkMinQuorumNodes(static_cast<int>(plan.nodes.size()),
                           static_cast<int>(plan.disks.size()), &plan.minQuorumNodes, &messages);
  fputs(messages.c_str(), stderr);
  if (rc != 0) return rc;
  fflush(stdout);
  // The cached state of whatever repository this machine knew before is no
  // guide to the new one.
  (void)removeFile(s.paths.cachedPaxosFile);
  return initRepository(ctx.client, plan);
}

int BackupCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  std::string path = ctx.cmd.archivePath;
  if (path[0] != '/') {
    fprintf(stderr, "File path: '%s' must be absolute\n", path.c_str());
    return EINVAL;
  }
  bool compress = false;
  if (endsWith(path, ".tar.gz")) {
    compress = true;
  } else if (!endsWith(path, ".tar")) {
    path += ".tar";
  }
  RequestResult result;
  const int rc = ctx.client.BACKUP(path, compress, &result);
  if (rc != 0) {
    fprintf(stderr, "backup QCR failed: %s (err %d)\n", errText(rc), rc);
    return rc;
  }
  printf("QCR archive stored under: '%s'\n", result.archivePath.c_str());
  return 0;
}

}  // namespace qcr
