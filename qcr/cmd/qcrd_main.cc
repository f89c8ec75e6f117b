// qcrd: the reference QCR server.
//
//   qcrd [-P PORT | --port PORT] [--base DIR] [--lease MS]
//        runs one server in the foreground until SIGTERM or SIGINT;
//   qcrd --init-cluster NODES_FILE [--cluster-id N] [--disks PATHS] [--min-quorum N]
//        makes the running servers named in NODES_FILE (qcr.nodes format) one
//        new repository, with the tiebreaker disk files PATHS (comma-separated,
//        absolute) and the fewest quorum nodes a change needs; with --keys DIR
//        over connections authenticated with the key files of DIR;
//   qcrd ... --allow-remote
//        also serves remote commands and copies (qcrsh, qcrcp) to clients that
//        did not authenticate; a secured server serves them to authenticated
//        clients only, with or without it;
//   qcrd --help | --version
//        prints the usage or the version on standard output;
//   qcrd --make-keys DIR [--cluster-id N]
//        writes the key files of a new key generation 1 into DIR (in the test
//        layout: authorized_qcr_keys and qcr.pem). A server whose base directory
//        holds them runs secured.
// The base directory defaults to /tmp/qcr for port 1191 and /tmp/qcr.PORT
// otherwise; it holds the state, the committed files, qcrd.pid and qcrd.trace.
// A running server prints one line on standard output once it listens, reopens
// qcrd.trace on SIGHUP (log rotation) and stops on SIGTERM or SIGINT. Whatever
// keeps it from starting is said on standard error, and the exit status is 1.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "basic/background.h"
#include "basic/clock.h"
#include "basic/crash.h"
#include "basic/files.h"
#include "basic/getopt.h"
#include "basic/log.h"
#include "basic/process.h"
#include "qcr/client/auth_keys.h"
#include "qcr/coding/result.h"
#include "qcr/data/list_files.h"
#include "qcr/data/repo_paths.h"
#include "qcr/cmd/init_cluster.h"
#include "qcr/server/base_dir.h"
#include "qcr/server/server.h"

namespace qcr {
namespace {

enum LongValue {
  kPort = 'P', kBase = 1000, kLease, kInitCluster, kClusterId, kCrashStore, kCrashBytes,
  kFullDiskFlag, kMaxConnections, kIdleSeconds, kChangePatience, kDisks, kMinQuorum, kJoined,
  kMakeKeys, kKeys, kAllowRemote, kSynodTimes, kHelp, kVersion,
};

const LongOption kLongOptions[] = {
    {"port", true, kPort},           {"base", true, kBase},
    {"lease", true, kLease},         {"init-cluster", true, kInitCluster},
    {"cluster-id", true, kClusterId}, {"crash-store", true, kCrashStore},
    {"crash-bytes", true, kCrashBytes}, {"full-disk-flag", true, kFullDiskFlag},
    {"max-connections", true, kMaxConnections}, {"idle-seconds", true, kIdleSeconds},
    {"change-patience", true, kChangePatience}, {"disks", true, kDisks},
    {"min-quorum", true, kMinQuorum}, {"joined", false, kJoined},
    {"make-keys", true, kMakeKeys}, {"keys", true, kKeys},
    {"allow-remote", false, kAllowRemote}, {"synod-times", false, kSynodTimes},
    {"help", false, kHelp},          {"version", false, kVersion},
};

constexpr const char kUsage[] =
    "usage: qcrd [-P PORT] [--base DIR] [--lease MS] [--max-connections N]\n"
    "            [--idle-seconds S] [--allow-remote] [--synod-times]\n"
    "       qcrd --init-cluster NODES_FILE [--cluster-id N] [--disks PATHS]\n"
    "            [--min-quorum N] [--keys DIR]\n"
    "       qcrd --make-keys DIR [--cluster-id N]\n"
    "       qcrd --help | --version\n";

struct Args {
  ServerOptions server;
  std::string initNodesFile;
  std::string makeKeysDir;
  std::string keysDir;
  uint64_t clusterId = 0;
  std::vector<std::string> diskPaths;
  int minQuorum = 1;
  bool help = false;
  bool version = false;
  bool synodTimes = false;  // write where the changes' time went when stopping
};

// Comma-separated absolute paths, none empty: 0, or 1.
int parseDisks(const std::string& text, std::vector<std::string>* pathsP) {
  size_t from = 0;
  while (true) {
    const size_t comma = text.find(',', from);
    const std::string path = text.substr(from, comma == std::string::npos ? comma : comma - from);
    if (path.empty() || path[0] != '/') return 1;
    pathsP->push_back(path);
    if (comma == std::string::npos) return 0;
    from = comma + 1;
  }
}

bool parseNumber(const std::string& text, long long* valueP) {
  char* end = nullptr;
  *valueP = strtoll(text.c_str(), &end, 10);
  return !text.empty() && *end == '\0';
}

// 0, or 1 after printing a usage error.
int parseArgs(int argc, char** argv, Args* args) {
  OptionParser parser(argc, argv, "P:", "qcrd");
  parser.setLongOptions(kLongOptions);
  long long n = 0;
  for (int opt; (opt = parser.next()) != OptionParser::kEndOfOptions;) {
    const std::string& arg = parser.argument();
    const bool number = parseNumber(arg, &n);
    switch (opt) {
      case kPort: if (!number || n < 1 || n > 65535) return 1; args->server.port = static_cast<int>(n); break;
      case kBase: args->server.baseDir = arg; break;
      case kLease: if (!number || n < 100) return 1; args->server.proposer.leaseMs = static_cast<int>(n); break;
      case kInitCluster: args->initNodesFile = arg; break;
      case kClusterId: if (!number || n <= 0) return 1; args->clusterId = static_cast<uint64_t>(n); break;
      case kCrashStore: if (!number) return 1; args->server.crashStore = static_cast<int>(n); break;
      case kCrashBytes: if (!number) return 1; args->server.crashBytes = n; break;
      case kFullDiskFlag: args->server.fullDiskFlag = arg; break;
      case kMaxConnections: if (!number || n < 1 || n > 65536) return 1; args->server.maxConnections = static_cast<int>(n); break;
      case kJoined: args->server.joined = true; break;
      case kAllowRemote: args->server.allowRemote = true; break;
      case kSynodTimes: args->synodTimes = true; break;
      case kChangePatience: if (!number || n < 1) return 1; args->server.changePatienceSeconds = static_cast<double>(n); break;
      case kIdleSeconds: if (!number || n < 1) return 1; args->server.idleSeconds = static_cast<double>(n); break;
      case kDisks: if (parseDisks(arg, &args->diskPaths) != 0) return 1; break;
      case kMakeKeys: args->makeKeysDir = arg; break;
      case kKeys: args->keysDir = arg; break;
      case kHelp: args->help = true; break;
      case kVersion: args->version = true; break;
      case kMinQuorum: if (!number || n < 1 || n > 8) return 1; args->minQuorum = static_cast<int>(n); break;
      default: return 1;
    }
  }
  if (parser.index() != argc) return 1;
  if (args->server.baseDir.empty()) {
    args->server.baseDir = args->server.port == kDefaultServerPort
                               ? "/tmp/qcr" : "/tmp/qcr." + std::to_string(args->server.port);
  }
  return 0;
}

int runInit(const Args& args) {
  NodeList nodes;
  int rc = readNodeList(args.initNodesFile, &nodes);
  if (rc != 0 || nodes.empty()) {
    // readNodeList gives 5 for records it could not read, whatever the file's state.
    const char* why = rc == EIO       ? "it holds ill-formed records"
                      : rc == 0       ? "it names no node"
                                      : errText(rc);
    fprintf(stderr, "qcrd: cannot read the node list '%s': %s\n", args.initNodesFile.c_str(), why);
    return 1;
  }
  uint64_t cid = args.clusterId;
  if (cid == 0) cid = static_cast<uint64_t>(systemClock().wallNow() * 1000.0);
  return InitCluster(nodes, cid, args.diskPaths, args.minQuorum, args.keysDir) == 0 ? 0 : 1;
}

int runMakeKeys(const Args& args) {
  KeyFiles files;
  int rc = isDirectory(args.makeKeysDir) ? 0 : makeDirectory(args.makeKeysDir, 0700);
  if (rc == 0) rc = CreateClusterKeys(args.clusterId, &files);
  if (rc == 0) rc = writeKeyFiles(keyFilePaths(args.makeKeysDir), files);
  if (rc != 0) {
    fprintf(stderr, "qcrd: cannot make keys in %s (err %d)\n", args.makeKeysDir.c_str(), rc);
    return 1;
  }
  return 0;
}

// The one line a started server prints: where it listens, on which base
// directory, for which repository, and whether connections are authenticated.
void printStartLine(Server& server, const std::string& base) {
  const uint64_t cid = server.replica().clusterId();
  const std::string cluster = cid == 0 ? "none (waiting for init)" : std::to_string(cid);
  printf("qcrd %s: listening on port %d, base directory %s, cluster id %s, security %s\n",
         QCR_VERSION, server.port(), base.c_str(), cluster.c_str(),
         server.security().on() ? "on" : "off");
  fflush(stdout);
}

int runServer(const Args& args) {
  const std::string& base = args.server.baseDir;
  if (!isDirectory(base)) {
    if (const int rc = makeDirectory(base, 0755); rc != 0) {
      fprintf(stderr, "qcrd: cannot create the directory %s: %s\n", base.c_str(), errText(rc));
      return 1;
    }
  }
  if (checkBaseDirectory(base) != 0) return 1;  // it says why on standard error
  const std::string traceFile = base + "/qcrd.trace";
  if (const int rc = traceOpen("qcrd", traceFile); rc != 0) {
    fprintf(stderr, "qcrd: no trace file %s: %s\n", traceFile.c_str(), errText(rc));
  }
  const std::string pidFile = base + "/qcrd.pid";
  if (const int rc = writeFile(pidFile, std::to_string(currentProcessId()) + "\n", 0644, false);
      rc != 0) {
    fprintf(stderr, "qcrd: cannot write %s: %s\n", pidFile.c_str(), errText(rc));
    return 1;
  }
  Server server(args.server);
  if (server.start() != 0) {
    // Standard error whatever the verbosity, so that whoever started qcrd sees it;
    // the trace keeps it too.
    fprintf(stderr, "qcrd: cannot start on port %d: %s\n", args.server.port,
            server.startProblem().c_str());
    if (traceIsOn()) qcrLog(1, "qcrd: cannot start: %s", server.startProblem().c_str());
    (void)removeFile(pidFile);
    return 1;
  }
  printStartLine(server, base);
  // A signal or a quit request stops the server; either way the exit is clean.
  // SIGHUP reopens the trace, which log rotation has moved away.
  while (!server.quitRequested()) {
    const ServerSignal sig = waitServerSignal(500);
    if (sig == ServerSignal::kStop) break;
    if (sig == ServerSignal::kReopen) {
      if (const int rc = traceReopen(); rc != 0) {
        fprintf(stderr, "qcrd: cannot reopen the trace file %s: %s\n", traceFile.c_str(), errText(rc));
      }
      qcrLog(1, "qcrd: trace reopened");
    }
  }
  qcrLog(1, "qcrd: stopping");
  server.stop();
  if (args.synodTimes) fprintf(stderr, "qcrd: %s\n", server.proposer().times().report().c_str());
  (void)removeFile(pidFile);
  traceClose();
  return 0;
}

}  // namespace
}  // namespace qcr

int main(int argc, char** argv) {
  qcr::blockStopSignals();  // before any thread starts, so every thread blocks them
  qcr::installCrashHandler("qcrd");
  qcr::readLogEnvironment();
  qcr::Args args;
  if (qcr::parseArgs(argc, argv, &args) != 0) {
    fputs(qcr::kUsage, stderr);
    return 1;
  }
  if (args.help) {
    fputs(qcr::kUsage, stdout);
    return 0;
  }
  if (args.version) {
    printf("qcrd %s\n", QCR_VERSION);
    return 0;
  }
  if (!args.makeKeysDir.empty()) return qcr::runMakeKeys(args);
  return args.initNodesFile.empty() ? qcr::runServer(args) : qcr::runInit(args);
}
