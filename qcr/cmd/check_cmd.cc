// check: the essential parts of this node's repository, one check after the
// other, each reported on its own line (or -Y record) whatever the others found.
// The result is the first non-zero result among the checks, in the order they ran.
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/interfaces.h"
#include "basic/log.h"
#include "qcr/client/control.h"
#include "qcr/cmd/check_record.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/security.h"
#include "qcr/data/state_file.h"

namespace qcr {

namespace {

// Waits of the servers' answers: a check of a large committed directory takes time.
constexpr int kCheckWaitMs = 30000;

std::string nodeLabel(const NodeEntry& node) { return node.name.empty() ? node.addr : node.name; }

// The lines of the authorized keys file, each cut at its first blank, until the
// first key whose value follows on the next lines (key material that has its own
// syntax): every non-empty one must be key=value.
bool keysFileLooksSound(const std::string& text) {
  size_t from = 0;
  bool any = false;
  while (from < text.size()) {
    size_t end = text.find('\n', from);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(from, end - from);
    from = end + 1;
    line = line.substr(0, line.find_first_of(" \t\r\v\f"));
    if (line.empty()) continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return false;
    any = true;
    const std::string key = line.substr(0, eq);
    if (key == "newPublicKey" || key == "committedPublicKey" || key == "newCertificate" ||
        key == "committedCertificate") {
      break;
    }
  }
  return any;
}

class HealthCheck {
 public:
  explicit HealthCheck(CommandContext& ctx)
      : ctx_(ctx), session_(ctx.client.repoSession()), record_(ctx.settings.machineReadable) {}

  int run() {
    step(kCheckClientInit, &HealthCheck::clientInit);
    step(kCheckAuthKeys, &HealthCheck::authKeys);
    step(kCheckCached, &HealthCheck::cachedFile);
    step(kCheckIpLookup, &HealthCheck::ipLookup);
    step(kCheckPaxosFiles, &HealthCheck::paxosFiles);
    if (ctx_.cmd.extendedCheck) {
      step(kCheckLocalServer, &HealthCheck::pingLocal);
      step(kCheckQuorumNodes, &HealthCheck::pingQuorum);
      step(kCheckCommittedDir, &HealthCheck::committedFiles);
      step(kCheckTiebreakers, &HealthCheck::tiebreakers);
    }
    return result_;
  }

 private:
  void step(CheckIndex index, void (HealthCheck::*check)()) {
    record_.begin(index);
    (this->*check)();
    if (result_ == 0) result_ = record_.errorCode();
    record_.setNodeId(session_.localNodeId);
    // The header goes right before the first record: the initialisation may print
    // a line of its own (the test layout's base directory).
    if (ctx_.settings.machineReadable && index == kCheckClientInit) {
      printf("%s\n", record_.header().c_str());
    }
    printf("%s\n", record_.render().c_str());
    fflush(stdout);
  }

  // 0: the prologue in check mode; its failures are recorded, not printed.
  void clientInit() {
    const int rc = CommandPrologue(ctx_, false, &record_);
    if (rc != 0 && !record_.hasError()) record_.recordError(rc, errText(rc), "", kSeverityFatal);
    securityOn_ = ctx_.client.security().enabled();
  }

  // 1: the authorized keys of connection authentication.
  void authKeys() {
    const std::string path = keyFilePaths(session_.paths.base).authorizedKeys;
    std::string text;
    const int rc = readFile(path, &text);
    if (rc == ENOENT && !securityOn_) {
      record_.recordSuccess("Security off", "");
    } else if (rc != 0) {
      record_.recordError(rc, "'" + path + "' does not exist or empty", path, kSeverityFatal);
    } else if (!keysFileLooksSound(text)) {
      record_.recordError(EINVAL, "File corrupt or empty", path, kSeverityFatal);
    } else {
      record_.recordSuccess(path, "");
    }
  }

  // 2: the client's cached directory and cached state file.
  void cachedFile() {
    const std::string& dir = session_.paths.cachedDir;
    const std::string& file = session_.paths.cachedPaxosFile;
    if (!isDirectory(dir)) {
      record_.recordError(E_NO_DIR, errText(E_NO_DIR), dir, kSeverityWarning);
      return;
    }
    if (!fileExists(file)) {
      record_.recordSuccess(dir, "");
      return;
    }
    PaxosLocalFile cached;
    if (const int rc = cached.loadFromFile(file); rc != 0) {
      record_.recordError(rc, file + " is corrupt", file, kSeverityFatal);
    } else {
      record_.recordSuccess(file, "");
    }
  }

  // 5: this machine's name and address.
  void ipLookup() {
    std::string name;
    int rc = localHostName(&name);
    std::vector<PeerAddress> found;
    if (rc == 0) rc = lookupHost(name, false, &found);
    if (rc == 0 && found.empty()) rc = EHOSTUNREACH;
    if (rc != 0) {
      record_.recordError(rc, errText(rc), name, kSeverityFatal);
      return;
    }
    record_.recordSuccess(name, "");
    record_.recordSuccess(ipText(chooseResolved(found)), "");
  }

  // 3: both copies of the Paxos state file. One bad copy leaves the other to
  // start from: a warning; both bad is fatal.
  void paxosFiles() {
    const std::string files[2] = {session_.paths.paxosFile + ".1", session_.paths.paxosFile + ".2"};
    int results[2];
    for (int i = 0; i < 2; ++i) {
      int64_t size = 0;
      if (!fileExists(files[i]) || fileSize(files[i], &size) != 0 || size == 0) {
        results[i] = ENOENT;
        continue;
      }
      PaxosLocalFile state;
      results[i] = state.loadFromFile(files[i]);
      if (results[i] != 0) {
        qcrLog(4, "Load from file: '%s' failed (%d)", files[i].c_str(), results[i]);
      } else {
        qcrLog(4, "Load from file: '%s' successful", files[i].c_str());
      }
    }
    const bool missing[2] = {results[0] == ENOENT, results[1] == ENOENT};
    if (missing[0] && missing[1]) {
      for (const std::string& f : files) {
        record_.recordError(ENOENT, "Both paxos files do not exist", f, kSeverityFatal);
      }
      return;
    }
    if (results[0] != 0 && results[1] != 0 && !missing[0] && !missing[1]) {
      for (int i = 0; i < 2; ++i) {
        record_.recordError(results[i], "Both paxos files corrupt", files[i], kSeverityFatal);
      }
      return;
    }
    const int severity = results[0] != 0 && results[1] != 0 ? kSeverityFatal : kSeverityWarning;
    for (int i = 0; i < 2; ++i) {
      if (results[i] == 0) {
        record_.recordSuccess(files[i], "");
      } else {
        record_.recordError(results[i], missing[i] ? "does not exist" : "file corrupt", files[i],
                            severity);
      }
    }
  }

  // The local server: this machine's node of the list, else localhost.
  int localServer(PeerAddress* addressP, std::string* labelP) {
    session_.waitMs = kCheckWaitMs;
    for (const NodeEntry& node : session_.nodeList) {
      if (node.id != session_.localNodeId) continue;
      *labelP = nodeLabel(node);
      return resolve(node.addr, node.port, addressP);
    }
    *labelP = "localhost";
    return resolve("localhost", session_.serverPort, addressP);
  }

  // 4
  void pingLocal() {
    PeerAddress address;
    std::string label;
    int rc = localServer(&address, &label);
    if (rc == 0) rc = PING(ctx_.client, address);
    if (rc != 0) {
      record_.recordError(rc, "Ping local QCR server failed", label, kSeverityFatal);
    } else {
      record_.recordSuccess(label, "");
    }
  }

  // 6: every quorum node. A majority that answers keeps the repository going: a
  // warning; fewer is fatal.
  void pingQuorum() {
    session_.waitMs = kCheckWaitMs;
    std::vector<std::pair<std::string, int>> failed;
    for (const NodeEntry& node : session_.nodeList) {
      PeerAddress address;
      int rc = resolve(node.addr, node.port, &address);
      if (rc == 0) rc = PING(ctx_.client, address);
      qcrLog(4, "Ping server %s err: %d (%d)", nodeLabel(node).c_str(), rc, node.id);
      if (rc == 0) {
        record_.recordSuccess(nodeLabel(node), "");
      } else {
        failed.emplace_back(nodeLabel(node), rc);
      }
    }
    const size_t answered = session_.nodeList.size() - failed.size();
    const int severity = answered * 2 > session_.nodeList.size() ? kSeverityWarning : kSeverityFatal;
    for (const auto& [label, rc] : failed) {
      record_.recordError(rc, "Ping QCR quorum nodes failed", label, severity);
    }
  }

  // 7 and 8 share one check request to the local server.
  int askLocalServer() {
    if (asked_) return askResult_;
    asked_ = true;
    PeerAddress address;
    askResult_ = localServer(&address, &localLabel_);
    if (askResult_ == 0) {
      askResult_ = CHECK(ctx_.client, address, kCheckFiles | kCheckDisks, &reply_);
    }
    return askResult_;
  }

  void committedFiles() {
    if (const int rc = askLocalServer(); rc != 0) {
      record_.recordError(rc, "Connect local QCR server failed", localLabel_, kSeverityFatal);
      return;
    }
    for (const std::string& file : reply_.failedFiles) {
      record_.recordError(reply_.fileError != 0 ? reply_.fileError : E_IO,
                          "Files in committed directory missing or corrupted", file,
                          kSeverityFatal);
    }
    for (const std::string& file : reply_.goodFiles) record_.recordSuccess(file, "");
  }

  void tiebreakers() {
    if (const int rc = askLocalServer(); rc != 0) {
      record_.recordError(rc, "Connect local QCR server failed", localLabel_, kSeverityFatal);
      return;
    }
    if ((reply_.flags & kCheckNoDisks) != 0) {
      record_.recordSuccess("", "No tiebreaker disks configured");
      return;
    }
    if (!reply_.failedDisks.empty()) {
      std::string message = "tiebreaker disk(s) failed. Access to";
      for (const std::string& disk : reply_.failedDisks) message += " " + disk;
      const int severity =
          reply_.goodDisks.size() > reply_.failedDisks.size() ? kSeverityWarning : kSeverityFatal;
      for (const std::string& disk : reply_.failedDisks) {
        record_.recordError(reply_.diskError != 0 ? reply_.diskError : E_IO, message, disk,
                            severity);
      }
    }
    for (const std::string& disk : reply_.goodDisks) record_.recordSuccess(disk, "");
  }

  CommandContext& ctx_;
  Session& session_;
  CheckRecord record_;
  int result_ = 0;
  bool securityOn_ = true;
  bool asked_ = false;
  int askResult_ = 0;
  std::string localLabel_;
  CheckReply reply_;
};

}  // namespace

int CheckCommand(CommandContext& ctx) {
  HealthCheck check(ctx);
  return check.run();
}

}  // namespace qcr
