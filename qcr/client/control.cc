#include "qcr/client/control.h"

#include <memory>

#include "basic/log.h"
#include "qcr/client/attempt.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"

namespace qcr {

namespace {

int exchange(Client& client, const PeerAddress& address, int msgType,
             const std::vector<uint8_t>& body, Message* replyP) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = client.connectAddress(address, kFirstPassConnectMs, &conn);
  if (rc != 0) return rc;
  rc = conn->send(msgType, body);
  if (rc == 0) rc = conn->receive(replyP);
  // A connection whose request the server refused is closed by the server.
  if (rc != 0 || replyP->type != MSG_TYPE_OK) conn->markBad();
  client.releaseConnection(std::move(conn));
  return rc;
}

// The result an answer carries: 0 for ok, the refusal of a failed one, 818 else.
int answerResult(int rc, const Message& reply) {
  if (rc != 0) return rc;
  if (reply.type == MSG_TYPE_FAILED) return failedAnswerError(reply);
  return reply.type == MSG_TYPE_OK ? 0 : E_ILL_FORMED_MSG;
}

int textExchange(Client& client, const PeerAddress& address, int msgType,
                 const std::vector<uint8_t>& body, ControlAnswer* answerP) {
  *answerP = ControlAnswer{};
  Message reply;
  int rc = exchange(client, address, msgType, body, &reply);
  answerP->type = reply.type;
  answerP->length = reply.body.size();
  rc = answerResult(rc, reply);
  if (rc == 0 && reply.body.size() > kMaxControlReply) rc = E_ILL_FORMED_MSG;
  if (rc == 0) answerP->text.assign(reply.body.begin(), reply.body.end());
  return rc;
}

}  // namespace

int PING(Client& client, const PeerAddress& address) {
  Message reply;
  return answerResult(exchange(client, address, MSG_TYPE_PING, {}, &reply), reply);
}

int DEBUG(Client& client, const PeerAddress& address, const DebugRequest& request,
          ControlAnswer* answerP) {
  return textExchange(client, address, MSG_TYPE_DEBUG, encodeBody(request), answerP);
}

int DUMP(Client& client, const PeerAddress& address, ControlAnswer* answerP) {
  return textExchange(client, address, MSG_TYPE_DUMP, {}, answerP);
}

int QUIT(Client& client, const PeerAddress& address, ControlAnswer* answerP) {
  return textExchange(client, address, MSG_TYPE_QUIT, {}, answerP);
}

int CHECK(Client& client, const PeerAddress& address, int32_t flags, CheckReply* replyP) {
  *replyP = CheckReply{};
  Message reply;
  int rc = exchange(client, address, MSG_TYPE_CHECK, encodeBody(CheckRequest{flags}), &reply);
  qcrLog(4, "Check server %s replyType: %d 0x%x %d", addressText(address).c_str(), reply.type,
         static_cast<unsigned>(reply.type), rc);
  rc = answerResult(rc, reply);
  if (rc == 0 && decodeBody(reply.body.data(), reply.body.size(), replyP) != 0) {
    rc = E_ILL_FORMED_MSG;
  }
  qcrLog(4, "Check server %s flags: %d numOfFailedFiles: %d numOfSucceedFiles %d err: %d",
         addressText(address).c_str(), replyP->flags, static_cast<int>(replyP->failedFiles.size()),
         static_cast<int>(replyP->goodFiles.size()), rc != 0 ? rc : replyP->fileError);
  return rc;
}

}  // namespace qcr
