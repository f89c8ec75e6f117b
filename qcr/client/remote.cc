#include "qcr/client/remote.h"

#include <cerrno>
#include <memory>

#include "basic/file_status.h"
#include "basic/log.h"
#include "qcr/client/attempt.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"

namespace qcr {
namespace {

// The output messages a command may send before its outcome; more is no answer
// of a server that keeps to its output limit.
constexpr int kMaxOutputMessages = 4096;

// Ends an exchange: the connection goes back (bad on failure) and stage is noted.
int finish(Client& client, std::unique_ptr<ConnImplementation> conn, int rc, RemoteStage stage,
           RemoteStage* stageP) {
  *stageP = rc == 0 ? RemoteStage::kNone : stage;
  if (rc != 0) conn->markBad();
  client.releaseConnection(std::move(conn));
  return rc;
}

// The reason of a failed answer, or 818 for an answer of another type.
int refusal(const Message& reply, RemoteStage* stageP) {
  *stageP = RemoteStage::kRefused;
  if (reply.type == MSG_TYPE_FAILED) return failedAnswerError(reply);
  *stageP = RemoteStage::kReply;
  return E_ILL_FORMED_MSG;
}

int open(Client& client, const PeerAddress& address, std::unique_ptr<ConnImplementation>* connP,
         RemoteStage* stageP) {
  const int rc = client.connectAddress(address, -1, connP);
  if (rc != 0) *stageP = RemoteStage::kConnect;
  return rc;
}

}  // namespace

int remoteHostAddress(const Session& session, const std::string& host, PeerAddress* addressP) {
  const NodeEntry* found = nullptr;
  for (const NodeEntry& node : session.nodeList) {
    if (node.name == host) {
      found = &node;
      break;
    }
  }
  for (const NodeEntry& node : session.nodeList) {
    if (found == nullptr && node.addr == host) found = &node;
  }
  if (found != nullptr) {
    if (const auto it = session.nodeAddrById.find(found->id); it != session.nodeAddrById.end()) {
      *addressP = it->second;
      return 0;
    }
    return resolve(found->addr, found->port, addressP);
  }
  return resolve(host, session.serverPort, addressP);
}

int RemoteExec(Client& client, const PeerAddress& address, const ShellRequest& request,
               const std::function<void(const Message&)>& output, ShellOutcome* outcomeP,
               RemoteStage* stageP) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = open(client, address, &conn, stageP);
  if (rc != 0) return rc;
  rc = conn->send(MSG_TYPE_SH, encodeBody(request));
  if (rc != 0) return finish(client, std::move(conn), rc, RemoteStage::kSend, stageP);
  for (int n = 0; n <= kMaxOutputMessages; ++n) {
    Message reply;
    rc = conn->receive(&reply);
    if (rc == 0 && reply.type == -1 && reply.body.empty()) rc = E_ILL_FORMED_MSG;
    if (rc != 0) return finish(client, std::move(conn), rc, RemoteStage::kReply, stageP);
    qcrLog(4, "debug response: err %d type %d (%s) len %zu", rc, reply.type,
           msgName(reply.type), reply.body.size());
    if (reply.type == MSG_TYPE_REPLY_STDOUT || reply.type == MSG_TYPE_REPLY_SDTERR) {
      output(reply);
      continue;
    }
    if (reply.type == MSG_TYPE_OK) {
      rc = decodeBody(reply.body.data(), reply.body.size(), outcomeP);
      return finish(client, std::move(conn), rc, RemoteStage::kReply, stageP);
    }
    RemoteStage stage = RemoteStage::kReply;
    rc = refusal(reply, &stage);
    return finish(client, std::move(conn), rc, stage, stageP);
  }
  return finish(client, std::move(conn), E_ILL_FORMED_MSG, RemoteStage::kReply, stageP);
}

int RemoteCopyTo(Client& client, const PeerAddress& address, const std::string& source,
                 const std::string& target, RemoteStage* stageP) {
  FileAnnouncement ann;
  int rc = announceFile(source, target, &ann);
  if (rc != 0) {
    *stageP = RemoteStage::kLocal;
    return rc;
  }
  std::unique_ptr<ConnImplementation> conn;
  rc = open(client, address, &conn, stageP);
  if (rc != 0) return rc;
  rc = conn->send(MSG_TYPE_CP_TO, encodeBody(ann));
  bool localFailure = false;
  if (rc == 0) {
    rc = sendFile(*conn, source, ann.size, &localFailure, std::nullopt, client.transferProgress());
  }
  if (rc != 0) {
    return finish(client, std::move(conn), rc,
                  localFailure ? RemoteStage::kLocal : RemoteStage::kSend, stageP);
  }
  Message reply;
  rc = conn->receive(&reply);
  if (rc != 0) return finish(client, std::move(conn), rc, RemoteStage::kReply, stageP);
  if (reply.type == MSG_TYPE_OK) return finish(client, std::move(conn), 0, RemoteStage::kNone, stageP);
  RemoteStage stage = RemoteStage::kReply;
  rc = refusal(reply, &stage);
  return finish(client, std::move(conn), rc, stage, stageP);
}

int RemoteCopyFrom(Client& client, const PeerAddress& address, const std::string& source,
                   const std::string& target, RemoteStage* stageP) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = open(client, address, &conn, stageP);
  if (rc != 0) return rc;
  rc = conn->send(MSG_TYPE_CP_FROM, encodeBody(CopyFromRequest{source}));
  if (rc != 0) return finish(client, std::move(conn), rc, RemoteStage::kSend, stageP);
  Message reply;
  rc = conn->receive(&reply);
  if (rc != 0) return finish(client, std::move(conn), rc, RemoteStage::kReply, stageP);
  if (reply.type != MSG_TYPE_CP_TO) {
    RemoteStage stage = RemoteStage::kReply;
    rc = refusal(reply, &stage);
    return finish(client, std::move(conn), rc, stage, stageP);
  }
  FileAnnouncement ann;
  if (decodeBody(reply.body.data(), reply.body.size(), &ann) != 0 || ann.size < 0) {
    return finish(client, std::move(conn), E_ILL_FORMED_MSG, RemoteStage::kReply, stageP);
  }
  std::string path;
  rc = copyTargetPath(target, source, &path);
  bool localFailure = true;
  if (rc == 0) rc = receiveCopiedFile(*conn, ann, path, &localFailure, client.transferProgress());
  return finish(client, std::move(conn), rc,
                localFailure ? RemoteStage::kLocal : RemoteStage::kReply, stageP);
}

}  // namespace qcr
