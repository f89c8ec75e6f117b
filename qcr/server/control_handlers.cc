// Server control and health: debug (echo, trace, msglevel, netdown), dump, quit
// and check. Their bodies come from anyone who can reach the port, so each is
// read with bounds: a body that does not parse, is too large, or asks for
// something this server does not do is refused (failed, then the connection is
// closed).
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/control_bodies.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/handlers.h"
#include "qcr/server/server.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

namespace {

constexpr int kMaxLogLevel = 7;
// How long the check waits for the tiebreaker disks.
constexpr double kDiskCheckSeconds = 5;

// A small decimal number: 1 to 4 digits, nothing else.
bool parseSmallNumber(const std::string& text, int* valueP) {
  if (text.empty() || text.size() > 4) return false;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  *valueP = value;
  return true;
}

int replyText(Connection& conn, const std::string& text) {
  const size_t len = std::min(text.size(), kMaxControlReply);
  return replyOk(conn, std::vector<uint8_t>(text.begin(), text.begin() + len));
}

std::string joinWords(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& w : words) text += (text.empty() ? "" : " ") + w;
  return text;
}

// trace and msglevel: without a word the level stays and is reported.
int setLevel(Connection& conn, const Message& req, const DebugRequest& ask, const char* what,
             std::atomic<int>& level) {
  int value = 0;
  if (ask.words.size() > 1 ||
      (ask.words.size() == 1 && (!parseSmallNumber(ask.words[0], &value) || value > kMaxLogLevel))) {
    return refuseRequest(conn, req, EINVAL);
  }
  const int old = level.load();
  if (ask.words.empty()) return replyText(conn, std::string(what) + " " + std::to_string(old));
  level = value;
  qcrLog(1, "%s %d -> %d", what, old, value);
  return replyText(conn, std::string(what) + " " + std::to_string(old) + " -> " +
                             std::to_string(value));
}

int handleNetDown(Server& server, Connection& conn, const Message& req, const DebugRequest& ask) {
  int seconds = 0;
  if (ask.words.size() != 1 || !parseSmallNumber(ask.words[0], &seconds) ||
      seconds > kMaxNetDownSeconds) {
    return refuseRequest(conn, req, EINVAL);
  }
  // The connection that asked still gets the answer, then goes down with the others.
  server.takeOffNetwork(seconds);
  return replyText(conn, seconds > 0 ? "network down for " + std::to_string(seconds) + " s"
                                     : std::string("network up"));
}

int handleDebug(Server& server, Connection& conn, const Message& req) {
  DebugRequest ask;
  if (req.body.size() > kMaxDebugBody ||
      decodeBody(req.body.data(), req.body.size(), &ask) != 0 ||
      ask.words.size() > kMaxDebugWords) {
    return E_ILL_FORMED_MSG;
  }
  for (const std::string& w : ask.words) {
    if (w.size() > kMaxDebugWordBytes) return E_ILL_FORMED_MSG;
  }
  qcrLog(4, "debug '%s' with %zu words", ask.command.c_str(), ask.words.size());
  if (ask.command == "echo") return replyText(conn, joinWords(ask.words));
  if (ask.command == "trace") return setLevel(conn, req, ask, "trace level", traceLevel);
  if (ask.command == "msglevel") return setLevel(conn, req, ask, "msg level", verbosity);
  if (ask.command == "netdown") return handleNetDown(server, conn, req, ask);
  return refuseRequest(conn, req, EINVAL);
}

std::string dumpText(Server& server) {
  const ReplicaView view = server.replica().view();
  std::string text;
  char line[256];
  snprintf(line, sizeof line, "qcrd node %d port %d cluster %llu %s\n", server.replica().nodeId(),
           server.port(), static_cast<unsigned long long>(view.clusterId),
           view.initialised ? "initialised" : "waiting for init");
  text += line;
  snprintf(line, sizeof line, "seq %d, leader %d, connections %d, trace level %d, msg level %d%s\n",
           view.seq, view.committed.leaderId, server.connectionCount(), traceLevel.load(),
           verbosity.load(), server.netDown() ? ", network down" : "");
  text += line;
  text += "nodes: " + nodeListToString(server.nodeList()) + "\n";
  text += "committed: " + view.committed.toString();
  for (const auto& [objId, record] : view.committed.files) {
    const auto name = view.names.find(objId);
    snprintf(line, sizeof line, "\nfile %d version %d uid %s crc %08X ", objId, record.version,
             uidToString(record.uid).c_str(), record.crc);
    text += line + (name == view.names.end() ? std::string("?") : name->second);
  }
  return text;
}

// ---- check ----

std::string fileLabel(const ReplicaView& view, int32_t objId) {
  const auto it = view.names.find(objId);
  return it != view.names.end() ? it->second : "object " + std::to_string(objId);
}

// Every current file of the committed state must be stored with its checksum.
void checkFiles(Server& server, const ReplicaView& view, CheckReply* replyP) {
  for (const auto& [objId, record] : view.committed.files) {
    CommittedFile f;
    int rc = server.files().find(objId, record.version, record.uid, &f);
    if (rc == 0) {
      // An unreadable copy is as bad as a damaged one.
      uint32_t crc = 0;
      if (fileChecksum(server.files().pathOf(f.fileName), &crc) != 0 || crc != f.crc ||
          crc != record.crc) {
        rc = E_IO;
      }
    }
    qcrLog(rc == 0 ? 5 : 1, "check: file %d '%s' version %d (%d)", objId,
           fileLabel(view, objId).c_str(), record.version, rc);
    (rc == 0 ? replyP->goodFiles : replyP->failedFiles).push_back(fileLabel(view, objId));
    if (rc != 0 && replyP->fileError == 0) replyP->fileError = rc;
  }
}

// Every configured disk must be in place and its block readable, for this cluster.
void checkDisks(Server& server, const ReplicaView& view, CheckReply* replyP) {
  const PaxosConfig& config = view.committed.config;
  if (config.disks.empty()) {
    replyP->flags |= kCheckNoDisks;
    return;
  }
  DiskList list;
  int rc = server.committedDiskList(view.committed, &list);
  std::vector<std::string> paths;
  for (int32_t id : config.disks) {
    std::string path;
    for (const DiskEntry& d : list) {
      if (d.id == id) path = d.label;
    }
    paths.push_back(path.empty() ? "disk " + std::to_string(id) : path);
  }
  if (rc != 0) {
    replyP->failedDisks = paths;
    replyP->diskError = rc;
    return;
  }
  // This server's block, or any member's when it holds no slot.
  int slot = 0;
  for (const ConfigNodeEntry& n : config.nodes) {
    if (n.diskSlot >= 0 && (n.nodeId == server.replica().nodeId() || slot == 0)) slot = n.diskSlot;
  }
  const StateFileOwner owner{view.clusterId, server.replica().nodeId()};
  const auto answers = server.checkWorkers().run(
      paths,
      [owner, slot](const std::string& disk) {
        FileDiskAccess io(owner);
        PaxosFileData data;
        DiskAnswer answer;
        answer.rc = io.read(disk, slot, &data);
        if (answer.rc == ENOENT) answer.rc = 0;  // a block never written: the disk answered
        return answer;
      },
      server.clock().now() + kDiskCheckSeconds);
  for (size_t i = 0; i < paths.size(); ++i) {
    rc = i < answers.size() ? answers[i].rc : ETIMEDOUT;
    qcrLog(rc == 0 ? 5 : 1, "check: disk '%s' (%d)", paths[i].c_str(), rc);
    (rc == 0 ? replyP->goodDisks : replyP->failedDisks).push_back(paths[i]);
    if (rc != 0 && replyP->diskError == 0) replyP->diskError = rc;
  }
}

int handleCheck(Server& server, Connection& conn, const Message& req) {
  CheckRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0 ||
      (ask.flags & ~(kCheckFiles | kCheckDisks)) != 0) {
    return E_ILL_FORMED_MSG;
  }
  const ReplicaView view = server.replica().view();
  if (!view.initialised) return replyFailed(conn, E_NOT_ACTIVE);
  CheckReply reply;
  reply.flags = ask.flags;
  if ((ask.flags & kCheckFiles) != 0) checkFiles(server, view, &reply);
  if ((ask.flags & kCheckDisks) != 0) checkDisks(server, view, &reply);
  return replyOk(conn, encodeBody(reply));
}

}  // namespace

int handleControl(Server& server, Connection& conn, const Message& req) {
  switch (req.type) {
    case MSG_TYPE_DEBUG: return handleDebug(server, conn, req);
    case MSG_TYPE_CHECK: return handleCheck(server, conn, req);
    case MSG_TYPE_DUMP:
      if (!req.body.empty()) return E_ILL_FORMED_MSG;
      return replyText(conn, dumpText(server));
    case MSG_TYPE_QUIT: {
      if (!req.body.empty()) return E_ILL_FORMED_MSG;
      // The server stops once this thread has answered: stop() waits for it.
      qcrLog(1, "quit requested by %s", addressText(conn.peerAddress()).c_str());
      server.requestQuit();
      return replyText(conn, "qcrd node " + std::to_string(server.replica().nodeId()) +
                                 " stopping");
    }
  }
  return E_ILL_FORMED_MSG;
}

}  // namespace qcr
