#include "qcr/server/repo_client.h"

#include <cerrno>

#include "basic/clock.h"
#include "basic/log.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/transfer/transfer.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/peer_link.h"

namespace qcr {

namespace {

constexpr int kConnectMs = 1000;
constexpr int kHelloMs = 2000;
constexpr int kWaitMs = 12000;  // a change may wait for a new leader

// A connection error, as opposed to an answer from a server.
constexpr int kNoAnswer = -1000;

template <class T>
bool decode(const Message& m, T* bodyP) {
  return decodeBody(m.body.data(), m.body.size(), bodyP) == 0;
}

}  // namespace

RepoClient::RepoClient(std::vector<PeerAddress> servers, double budgetSeconds)
    : servers_(std::move(servers)), budget_(budgetSeconds) {}

int RepoClient::finish(const Message& reply) {
  if (reply.type == MSG_TYPE_SEQ_COMMIT) {
    SeqCommitReply r;
    if (!decode(reply, &r)) return E_ILL_FORMED_MSG;
    lastSeq_ = r.seq;
    lastState_ = r.state;
    return 0;
  }
  if (reply.type == MSG_TYPE_SEQ_COMMIT_ERROR) {
    SeqCommitErrorReply r;
    if (!decode(reply, &r)) return E_ILL_FORMED_MSG;
    lastSeq_ = r.seq;
    lastState_ = r.state;
    return r.error;
  }
  return E_ILL_FORMED_MSG;
}

// Connection errors show as kNoAnswer - code, so that run can tell them from the
// servers' answers.
int RepoClient::run(const char* what, const Exchange& exchange) {
  const double start = systemClock().now();
  bool connected = false;
  int last = 0;
  while (systemClock().now() < start + budget_) {
    for (size_t k = 0; k < servers_.size(); ++k) {
      const size_t i = (first_ + k) % servers_.size();
      std::unique_ptr<Connection> conn;
      int rc = connect(servers_[i], &conn, kConnectMs, nullptr, kHelloMs);
      if (rc != 0) {
        last = kNoAnswer - rc;
        continue;
      }
      connected = true;
      static_cast<ConnImplementation*>(conn.get())->setTimeouts(kWaitMs, kWaitMs);
      rc = exchange(*conn);
      qcrLog(4, "%s at %s: %d", what, addressText(servers_[i]).c_str(), rc);
      if (rc == 0 || (rc > kNoAnswer && rc != E_NOT_ACTIVE)) {
        first_ = i;
        return rc;
      }
      last = rc;
    }
    systemClock().sleepUntil(systemClock().now() + 0.2);
  }
  if (!connected) return E_NO_QUORUM_NODE_REACHED;
  return last > kNoAnswer && last != 0 ? last : E_MAX_RETRIES;
}

namespace {

int exchangeOne(Connection& conn, int type, const std::vector<uint8_t>& body, Message* replyP) {
  int rc = sendMessage(conn, type, body);
  if (rc == 0) rc = receiveMessage(conn, replyP);
  return rc == 0 ? 0 : kNoAnswer - rc;
}

}  // namespace

int RepoClient::change(int type, const std::vector<uint8_t>& body, const std::string& uploadPath,
                       int64_t uploadSize) {
  return run(msgName(type), [&](Connection& conn) {
    Message reply;
    int rc = exchangeOne(conn, type, body, &reply);
    while (rc == 0 && (reply.type == MSG_TYPE_UID || reply.type == MSG_TYPE_UID_FPUT)) {
      UidFputReply uid;
      if (reply.type == MSG_TYPE_UID_FPUT && decode(reply, &uid) && uid.needFile) {
        bool local = false;
        rc = sendFile(conn, uploadPath, uploadSize, &local);
        if (rc != 0) return kNoAnswer - rc;
      }
      rc = receiveMessage(conn, &reply);
      if (rc != 0) return kNoAnswer - rc;
    }
    return rc != 0 ? rc : finish(reply);
  });
}

int RepoClient::vget(SeqCommitReply* replyP) {
  const int rc = run("vget", [&](Connection& conn) {
    Message reply;
    const int r = exchangeOne(conn, MSG_TYPE_VGET, {}, &reply);
    return r != 0 ? r : finish(reply);
  });
  if (rc == 0) *replyP = SeqCommitReply{lastSeq_, lastState_};
  return rc;
}

int RepoClient::vput(const std::string& name, const std::string& value, int32_t newVersion,
                     int32_t condVersion) {
  return change(MSG_TYPE_VPUT, encodeBody(VputRequest{{}, name, value, newVersion, condVersion}), "", 0);
}

int RepoClient::vdel(const std::string& name, int32_t condVersion) {
  return change(MSG_TYPE_VDEL, encodeBody(DeleteRequest{{}, name, condVersion}), "", 0);
}

int RepoClient::fdel(const std::string& name, int32_t condVersion) {
  return change(MSG_TYPE_FDEL, encodeBody(DeleteRequest{{}, name, condVersion}), "", 0);
}

int RepoClient::config(const ConfigRequest& req) {
  return change(MSG_TYPE_CONFIG, encodeBody(req), "", 0);
}

int RepoClient::backup(const std::string& localPath, bool compress, BackupReply* replyP) {
  return run("backup", [&](Connection& conn) {
    Message reply;
    int r = exchangeOne(conn, MSG_TYPE_BACKUP, encodeBody(BackupRequest{compress ? 1 : 0}), &reply);
    if (r != 0) return r;
    ErrorBody error;
    if (reply.type == MSG_TYPE_FAILED) return decode(reply, &error) ? error.error : E_ILL_FORMED_MSG;
    if (reply.type != MSG_TYPE_REPLY_BACKUP || !decode(reply, replyP)) return E_ILL_FORMED_MSG;
    ReceiveOptions options;
    options.target = localPath;
    options.expectedSize = replyP->archiveSize;
    uint32_t crc = 0;
    bool local = false;
    r = receiveFile(conn, options, &crc, &local);
    return r == 0 ? 0 : kNoAnswer - r;
  });
}

int RepoClient::fput(const std::string& name, const std::string& localPath, int32_t newVersion,
                     int32_t condVersion) {
  int64_t size = 0;
  const int rc = transferFileSize(localPath, &size);
  if (rc != 0) return rc;
  return change(MSG_TYPE_FPUT,
                encodeBody(FputRequest{{}, name, size, newVersion, condVersion, 0}), localPath, size);
}

int RepoClient::query(SeqCommitQueryReply* replyP) {
  return run("query", [&](Connection& conn) {
    Message reply;
    const int r = exchangeOne(conn, MSG_TYPE_QUERY, {}, &reply);
    if (r != 0) return r;
    if (reply.type != MSG_TYPE_SEQ_COMMIT_QUERY) return finish(reply);
    return decode(reply, replyP) ? 0 : E_ILL_FORMED_MSG;
  });
}

int RepoClient::flist(SeqCommitFlistReply* replyP) {
  return run("flist", [&](Connection& conn) {
    Message reply;
    const int r = exchangeOne(conn, MSG_TYPE_FGET, {}, &reply);
    if (r != 0) return r;
    if (reply.type != MSG_TYPE_SEQ_COMMIT_FLIST) return finish(reply);
    return decode(reply, replyP) ? 0 : E_ILL_FORMED_MSG;
  });
}

int RepoClient::fget(const std::string& name, const std::string& localPath, int32_t condVersion,
                     SeqCommitFgetReply* replyP) {
  return run("fget", [&](Connection& conn) {
    Message reply;
    int r = exchangeOne(conn, MSG_TYPE_FGET, encodeBody(FgetRequest{name, condVersion, 0}), &reply);
    if (r != 0) return r;
    if (reply.type != MSG_TYPE_SEQ_COMMIT_FGET) return finish(reply);
    if (!decode(reply, replyP)) return E_ILL_FORMED_MSG;
    ReceiveOptions options;
    options.target = localPath;
    options.expectedSize = replyP->fileSize;
    uint32_t crc = 0;
    bool local = false;
    r = receiveFile(conn, options, &crc, &local);
    return r == 0 ? 0 : kNoAnswer - r;
  });
}

int RepoClient::init(size_t index, const InitRequest& req) {
  std::unique_ptr<Connection> conn;
  int rc = connect(servers_.at(index), &conn, kConnectMs, nullptr, kHelloMs);
  Message reply;
  if (rc == 0) rc = sendMessage(*conn, MSG_TYPE_INIT, encodeBody(req));
  if (rc == 0) rc = receiveMessage(*conn, &reply);
  if (rc != 0) return rc;
  ErrorBody error;
  if (reply.type == MSG_TYPE_FAILED) return decode(reply, &error) ? error.error : E_ILL_FORMED_MSG;
  return reply.type == MSG_TYPE_OK ? 0 : E_ILL_FORMED_MSG;
}

int RepoClient::status(size_t index, int* statusP) {
  std::unique_ptr<Connection> conn;
  int rc = connect(servers_.at(index), &conn, kConnectMs, nullptr, kHelloMs);
  Message reply;
  if (rc == 0) rc = sendMessage(*conn, MSG_TYPE_STATUS, {});
  if (rc == 0) rc = receiveMessage(*conn, &reply);
  if (rc != 0) return rc;
  int32_t value = 0;
  const uint8_t* p = reply.body.data();
  if (getVarInt32(p, p + reply.body.size(), &value) == nullptr) return E_ILL_FORMED_MSG;
  *statusP = value;
  return 0;
}

}  // namespace qcr
