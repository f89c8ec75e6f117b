#include "qcr/cmd/prologue.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "basic/assert.h"
#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"
#include "qcr/client/local_node.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_ops.h"
#include "qcr/data/list_files.h"

namespace qcr {

namespace {

constexpr bool isTestInstall = QCR_IS_TEST_INSTALL != 0;
constexpr int kDirMode = 0755;
constexpr int kSeverityFatal = 3;
constexpr int kRemoveTimeoutMs = 10 * 60 * 1000;

// The process cannot work without its product directory, and setup must not
// overwrite a repository by accident: both end the run as a usage error does.
[[noreturn]] void exitUsage() {
  fflush(stdout);
  std::exit(1);
}

std::string baseDirectory(int port) {
  if (!isTestInstall) {
    if (!isDirectory(kProductDir)) {
      qcrLog(1, "Directory %s not found.\n", kProductDir);
      exitUsage();
    }
    return std::string(kProductDir) + "/qcr";
  }
  QCR_ASSERT(isTestInstall);
  if (const char* base = std::getenv("QCR_BASE"); base != nullptr) {
    printf("qcrBaseDir: %s\n", base);
    return base;
  }
  if (port == kDefaultServerPort) return "/tmp/qcr";
  return "/tmp/qcr." + std::to_string(port);
}

void setPaths(Session& s, const std::string& base) {
  RepoPaths& paths = s.paths;
  paths = deriveRepoPaths(base);
  if (isTestInstall) {
    paths.committedCert = base + "/qcr.pem";
    paths.committedKey = paths.committedCert;
    paths.clusterConfigFile = base + "/vysdrfs";
  } else {
    paths.committedCert = std::string(kProductDir) + "/ssl/id_rsa_committed.cert";
    paths.committedKey = std::string(kProductDir) + "/ssl/id_rsa_committed";
    paths.clusterConfigFile = std::string(kProductDir) + "/gen/vysdrfs";
  }
}

int makeDir(const std::string& path) {
  qcrLog(1, "Creating '%s'", path.c_str());
  return createDirectory(path, kDirMode) == 0 ? 0 : E_CREATE_DIR;
}

// createMode 0 and 1: the base and committed directories must exist or are
// created; the cached directory is created whenever it is missing.
int checkDirectories(const RepoPaths& paths, int createMode, bool quiet,
                     SessionCheckRecord* rec) {
  qcrLog(4, "Using %s", paths.base.c_str());
  for (const std::string* dir : {&paths.base, &paths.committedDir}) {
    if (isDirectory(*dir)) {
      if (rec != nullptr) rec->recordSuccess(*dir, "");
      continue;
    }
    qcrLog(quiet ? 1 : 3, "'%s' not found", dir->c_str());
    if (createMode == kCreateNone) {
      if (rec != nullptr) rec->recordError(E_NO_DIR, errText(E_NO_DIR), *dir, kSeverityFatal);
      return E_NO_DIR;
    }
    if (const int rc = makeDir(*dir); rc != 0) return rc;
  }
  // The check command reports a missing cached directory rather than repair it.
  if (rec != nullptr) return 0;
  return isDirectory(paths.cachedDir) ? 0 : makeDir(paths.cachedDir);
}

// createMode 2 and above: a new base directory with empty subdirectories.
int recreateDirectories(const RepoPaths& paths, int createMode) {
  if (isDirectory(paths.base)) {
    if (createMode == kCreateNew) {
      qcrLog(0, "Directory %s already exists.\nDelete the directory first, or use -F option to "
                "force deletion.\n", paths.base.c_str());
      exitUsage();
    }
    // Run without a shell: the path is one argument whatever it holds ("--" keeps
    // one starting with "-" from being an option). cmd only shows it in the log.
    const std::string cmd = "/bin/rm -rf " + paths.base;
    qcrLog(1, "Deleting old '%s' using this cmd: '%s'", paths.base.c_str(), cmd.c_str());
    ChildStatus status;
    int rc = runAndWait({"/bin/rm", "-rf", "--", paths.base}, kRemoveTimeoutMs, &status);
    if (rc == 0 && status.exitCode != 0) rc = status.exitCode > 0 ? status.exitCode : EIO;
    if (rc != 0) {
      qcrLog(1, "Deleting '%s' using this cmd: '%s' failed (%d)", paths.base.c_str(), cmd.c_str(),
             rc);
      return rc;
    }
    qcrLog(4, "Deleting '%s' successful", paths.base.c_str());
  }
  for (const std::string* dir : {&paths.base, &paths.cachedDir, &paths.committedDir}) {
    if (const int rc = makeDir(*dir); rc != 0) return rc;
  }
  return 0;
}

int loadNodeList(Session& s, SessionCheckRecord* rec) {
  const std::string& path = s.paths.nodesFile;
  s.nodeList.clear();
  s.nodeListValid = false;
  int64_t size = 0;
  if (fileSize(path, &size) != 0 || size <= 0) {  // missing or empty
    qcrLog(4, "'%s' does not exist or empty", path.c_str());
    if (rec != nullptr) rec->recordError(E_NODES_FILE, errText(E_NODES_FILE), path, kSeverityFatal);
    return 0;
  }
  int rc = readNodeList(path, &s.nodeList);
  if (rc != 0) {
    if (rec != nullptr) rec->recordError(rc, errText(rc), path + " corrupt", kSeverityFatal);
    return rc;
  }
  // The interface list is asked for only when a node could be this machine.
  const std::vector<IpAddress16>* localAddrs = nullptr;
  rc = localAddressesFor(s, &localAddrs);
  if (rc != 0) {
    qcrLog(0, "Could not retrieve network interface configuration (err %d)", rc);
    return rc;
  }
  rc = settleLocalNode(*localAddrs, &s);
  if (rc == 0) {
    s.nodeListValid = true;
    if (rec != nullptr) rec->recordSuccess(path, "");
  }
  return rc;
}

void loadDiskList(Session& s) {
  const std::string& path = s.paths.disksFile;
  if (!fileExists(path)) {
    qcrLog(4, "'%s' does not exist", path.c_str());
    return;
  }
  s.diskListValid = readDiskList(path, &s.diskList) == 0;
}

}  // namespace

int chooseServerPort(int port) {
  if (port >= 1) return port;
  if (const char* env = std::getenv("QCR_PORT"); env != nullptr) return std::atoi(env);
  return kDefaultServerPort;
}

int clientIoInit(Session* sessionP, int port, int createMode, bool quiet,
                 SessionCheckRecord* checkRecord) {
  readLogEnvironment();
  Session& s = *sessionP;
  s.serverPort = chooseServerPort(port);
  setPaths(s, baseDirectory(s.serverPort));
  const int dirRc = createMode < kCreateNew
                        ? checkDirectories(s.paths, createMode, quiet, checkRecord)
                        : recreateDirectories(s.paths, createMode);
  if (dirRc != 0) {
    // A missing directory that was not to be created is reported where it is found.
    if (dirRc != E_NO_DIR) qcrLog(0, "Could not create QCR directory (err %d)", dirRc);
    return dirRc;
  }
  const int rc = loadNodeList(s, checkRecord);
  if (rc == 0) loadDiskList(s);
  qcrLog(4, "qcrio init: ip=%s port=%d node=%d (%d)", s.localNodeAddr.c_str(), s.serverPort,
         s.localNodeId, createMode);
  return rc;
}

int readSecurityMode(const std::string& path) {
  std::string data;
  if (readFile(path, &data) != 0 || data.size() < sizeof(int32_t)) return 0;
  int32_t value = 0;
  memcpy(&value, data.data(), sizeof value);  // the file holds a native integer
  return value;
}

int CommandPrologue(CommandContext& ctx, bool update, SessionCheckRecord* checkRecord) {
  Client& client = ctx.client;
  int rc = clientIoInit(&client.repoSession(), ctx.settings.serverPort, kCreateNone, true,
                        checkRecord);
  if (rc != 0) {
    if (checkRecord == nullptr) fprintf(stderr, "qcrio initialization failed (err %d)\n", rc);
    return rc;
  }
  const int securityMode = readSecurityMode(client.repoSession().paths.noauthFile);
  ctx.settings.securityMode = securityMode;
  client.security().setSecurityOff(securityMode);
  if (client.security().enabled()) {
    rc = client.security().startup(true, keyFilePaths(client.repoSession().paths.base));
    if (rc != 0) {
      if (checkRecord != nullptr) {
        checkRecord->recordError(rc, "Security initialization failed", "Security", kSeverityFatal);
      } else {
        fprintf(stderr, "security initialization failed (err %d)\n", rc);
      }
      return rc;
    }
    if (checkRecord != nullptr) checkRecord->recordSuccess("Security", "");
  }
  if (client.repoSession().nodeList.empty()) {
    fputs("qcr node list missing or empty\n", stderr);
    return E_NODES_FILE;
  }
  // Without a cached state the servers are asked in node list order: slower to
  // find the leader, but never wrong, so the command goes on.
  (void)client.PaxosInit(update);
  return 0;
}

int commandFailed(const char* what, int rc) {
  fprintf(stderr, "%s failed: %s (err %d)\n", what, errText(rc), rc);
  return rc;
}

}  // namespace qcr
