// sh, cp_to (any destination but the committed directory) and cp_from: remote
// commands and copies for the qcrsh and qcrcp personalities of the tool. They
// are served on an authenticated connection, or on any connection of a server
// started to allow them; everything else is refused with 703.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "basic/file_status.h"
#include "basic/log.h"
#include "basic/process.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/handlers.h"
#include "qcr/server/server.h"
#include "qcr/transfer/remote.h"
#include "qcr/transfer/transfer.h"

namespace qcr {
namespace {

constexpr char kDefaultPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";
constexpr int kOutputChunk = 1048576;

bool remoteAllowed(Server& server, const Connection& conn) {
  return conn.isAuthenticated() || server.allowRemote();
}

// The program that argv0 names: itself when it holds a "/", else the first
// executable regular file of that name in the directories of path.
std::string findProgram(const std::string& argv0, const std::string& path) {
  if (argv0.find('/') != std::string::npos) return argv0;
  size_t from = 0;
  while (from <= path.size()) {
    size_t colon = path.find(':', from);
    if (colon == std::string::npos) colon = path.size();
    const std::string dir = path.substr(from, colon - from);
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + argv0;
    FileStatus status;
    if (fileStatus(candidate, &status) == 0 && status.regular && (status.mode & 0111) != 0) {
      return candidate;
    }
    from = colon + 1;
  }
  return "";
}

// The command's environment: a fixed search path, then the assignments as given
// (a later one replaces an earlier one of the same name).
std::vector<std::string> commandEnvironment(const std::vector<std::string>& assignments,
                                            std::string* searchPathP) {
  std::vector<std::string> env{std::string("PATH=") + kDefaultPath};
  for (const std::string& entry : assignments) {
    const std::string name = entry.substr(0, entry.find('=') + 1);
    std::erase_if(env, [&name](const std::string& e) { return e.starts_with(name); });
    env.push_back(entry);
  }
  for (const std::string& e : env) {
    if (e.starts_with("PATH=")) *searchPathP = e.substr(5);
  }
  return env;
}

int sendOutput(Connection& conn, int type, const std::string& text) {
  for (size_t at = 0; at < text.size(); at += kOutputChunk) {
    const size_t n = std::min(text.size() - at, static_cast<size_t>(kOutputChunk));
    const int rc = conn.send(type, text.data() + at, static_cast<int>(n));
    if (rc != 0) return rc;
  }
  return 0;
}

}  // namespace

int handleShell(Server& server, Connection& conn, const Message& req) {
  ShellRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  if (!remoteAllowed(server, conn)) return refuseRequest(conn, req, E_NOT_AUTHORIZED);
  if (ask.argv.empty() || ask.argv[0].empty()) return refuseRequest(conn, req, EINVAL);
  for (const std::string& entry : ask.assignments) {
    if (!isAssignment(entry)) return refuseRequest(conn, req, EINVAL);
  }
  std::string searchPath;
  const std::vector<std::string> env = commandEnvironment(ask.assignments, &searchPath);
  std::vector<std::string> argv = ask.argv;
  argv[0] = findProgram(ask.argv[0], searchPath);
  qcrLog(4, "running '%s' (%zu arguments) for %s", ask.argv[0].c_str(), argv.size() - 1,
         addressText(conn.peerAddress()).c_str());
  CapturedRun run;
  ShellOutcome outcome;
  int rc = argv[0].empty() ? ENOENT
                           : runCaptured(argv, env, kRemoteCommandSeconds * 1000, &run,
                                         kRemoteOutputBytes);
  if (rc == ETIMEDOUT || rc == EFBIG) {
    run.err += "qcrd: '" + ask.argv[0] + "' " +
               (rc == ETIMEDOUT ? "ran out of time (" + std::to_string(kRemoteCommandSeconds) + " s)"
                                : "wrote more than " + std::to_string(kRemoteOutputBytes) + " bytes") +
               ", killed\n";
    // Reported as killed even when it ended by itself meanwhile: its output is cut.
    run.status = ChildStatus{-1, SIGKILL};
    rc = 0;
  } else if (rc != 0 && run.status.exitCode < 0 && run.status.signal < 0) {
    // It never ran: answered as a shell would, 127 when there is no such program.
    run.err = "qcrd: cannot run '" + ask.argv[0] + "': " + strerror(rc) + "\n";
    run.status = ChildStatus{rc == ENOENT ? 127 : 126, -1};
    rc = 0;
  }
  if (rc != 0) return refuseRequest(conn, req, rc);
  outcome.exitCode = run.status.exitCode;
  outcome.signal = run.status.signal;
  rc = sendOutput(conn, MSG_TYPE_REPLY_STDOUT, run.out);
  if (rc == 0) rc = sendOutput(conn, MSG_TYPE_REPLY_SDTERR, run.err);
  if (rc == 0) rc = replyOk(conn, encodeBody(outcome));
  return rc;
}

int handleCopyTo(Server& server, Connection& conn, const Message& req,
                 const FileAnnouncement& ann) {
  if (!remoteAllowed(server, conn)) return refuseRequest(conn, req, E_NOT_AUTHORIZED);
  if (!isCopyPath(ann.destination) || ann.size < 0 || ann.size > kMaxTransferSize) {
    return refuseRequest(conn, req, EINVAL);
  }
  std::string path;
  int rc = copyTargetPath(ann.destination, ann.name, &path);
  if (rc != 0) return refuseRequest(conn, req, rc);
  bool localFailure = false;
  rc = receiveCopiedFile(conn, ann, path, &localFailure);
  // A failure of the peer's side leaves nothing to answer on.
  if (rc != 0) return localFailure ? refuseRequest(conn, req, rc) : rc;
  qcrLog(4, "stored '%s' (%lld bytes) for %s", path.c_str(), static_cast<long long>(ann.size),
         addressText(conn.peerAddress()).c_str());
  return replyOk(conn);
}

int handleCopyFrom(Server& server, Connection& conn, const Message& req) {
  CopyFromRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  if (!remoteAllowed(server, conn)) return refuseRequest(conn, req, E_NOT_AUTHORIZED);
  if (!isCopyPath(ask.path)) return refuseRequest(conn, req, EINVAL);
  FileStatus status;
  int rc = linkStatus(ask.path, &status);
  if (rc == 0 && !status.regular) rc = status.directory ? EISDIR : EINVAL;
  FileAnnouncement ann;
  if (rc == 0) rc = announceFile(ask.path, "", &ann);
  if (rc != 0) return refuseRequest(conn, req, rc);
  rc = conn.send(MSG_TYPE_CP_TO, encodeBody(ann));
  bool localFailure = false;
  if (rc == 0) rc = sendFile(conn, ask.path, ann.size, &localFailure);
  if (rc == 0) {
    qcrLog(4, "sent '%s' (%lld bytes) to %s", ask.path.c_str(),
           static_cast<long long>(ann.size), addressText(conn.peerAddress()).c_str());
  }
  return rc;
}

}  // namespace qcr
