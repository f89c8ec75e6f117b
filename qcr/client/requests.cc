// The repository requests: one per request, each an attempt loop over the servers
// around one exchange.
#include <cerrno>
#include <vector>

#include "basic/assert.h"
#include "basic/file_status.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/client/release_level.h"
#include "qcr/client/fetch.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/file_names.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

namespace {

// Sends a read request and receives the one reply of type wanted; a final answer
// ends the loop.
int readExchange(Client& client, Connection& conn, RetryState* ctxP, int msgType,
                 const std::vector<uint8_t>& body, int wanted, QcrReply* replyP) {
  int rc = conn.send(msgType, body.data(), static_cast<int>(body.size()));
  if (rc == 0) rc = ReceiveQCRReply(client, conn, ctxP, replyP);
  if (rc != 0) return rc;
  QCR_ASSERT_MSG(replyP->type == wanted, "unexpected reply %d", replyP->type);
  ctxP->active = false;
  return 0;
}

// The attempt loop of a read request without a body, answered by one reply of
// type wanted.
int runRead(Client& client, const char* name, int msgType, int wanted, QcrReply* replyP) {
  RetryState ctx = client.newRetryState(name);
  return client.runAttempts(&ctx, [&](Connection& conn, RetryState* ctxP) {
    return readExchange(client, conn, ctxP, msgType, {}, wanted, replyP);
  });
}

// One attempt of a backup: the server answers with the archive's size and sends
// it, or says why it cannot (final unless it is 808).
int backupExchange(Connection& conn, RetryState* ctxP, const std::vector<uint8_t>& body,
                   const std::string& localPath, BackupReply* replyP, std::string* storedP) {
  Message reply;
  int rc = conn.send(MSG_TYPE_BACKUP, body);
  if (rc == 0) rc = conn.receive(&reply);
  if (rc != 0) return rc;
  if (reply.type == MSG_TYPE_FAILED) {
    rc = failedAnswerError(reply);
    if (rc != E_NOT_ACTIVE) ctxP->active = false;
    return rc;
  }
  QCR_ASSERT_MSG(reply.type == REPLY_TYPE_BACKUP, "unexpected reply %d", reply.type);
  if (decodeBody(reply.body.data(), reply.body.size(), replyP) != 0) {
    conn.markBad();
    return E_ILL_FORMED_MSG;
  }
  // A server without a compressor sends a plain archive: it is stored under the
  // plain name.
  std::string target = localPath;
  if (replyP->compressed == 0 && target.size() > 3 &&
      target.compare(target.size() - 3, 3, ".gz") == 0) {
    target.resize(target.size() - 3);
    qcrLog(4, "Adjusted '%s' to '%s'", localPath.c_str(), target.c_str());
  }
  *storedP = target;
  qcrLog(4, "Receive backup file and store it under: '%s' (%lld)", target.c_str(),
         static_cast<long long>(replyP->archiveSize));
  ReceiveOptions options;
  options.target = target;
  options.expectedSize = replyP->archiveSize;
  uint32_t checksum = 0;
  bool localFailure = false;
  rc = receiveFile(conn, options, &checksum, &localFailure);
  if (rc == 0 || localFailure) ctxP->active = false;
  return rc;
}

// A file name that no server takes ends the request before any server is asked:
// every server would refuse it again.
int refuseName(const char* tag, const std::string& name) {
  qcrLog(1, "%s: '%s' is not a valid file name", tag, name.c_str());
  return EINVAL;
}

// Moves the committed state a successful request was answered with into *resultP.
void takeState(QcrReply* replyP, RequestResult* resultP) {
  resultP->seq = replyP->seq;
  resultP->state = std::move(replyP->state);
}

// The attempt loop of a change request whose body is the same in every attempt.
int runUpdate(Client& client, const char* name, int msgType, const std::vector<uint8_t>& body,
              const UploadFile* upload, RequestResult* resultP) {
  RetryState ctx = client.newRetryState(name);
  QcrReply reply;
  const int rc = client.runAttempts(&ctx, [&](Connection& conn, RetryState* ctxP) {
    return doUpdateRequest(client, conn, msgType, body, Uid{}, ctxP, upload, &reply);
  });
  if (rc == 0) takeState(&reply, resultP);
  resultP->connections = ctx.connectCount;
  return rc;
}

// vdel and fdel: one body under two message types. tag names the request in the
// trace, name its attempt loop.
int runDelete(Client& client, const char* tag, const char* name, int msgType,
              const std::string& objName, int32_t condVersion, RequestResult* resultP) {
  qcrLog(4, "%s('%s', %d)", tag, objName.c_str(), condVersion);
  *resultP = RequestResult{};
  DeleteRequest request;
  request.name = objName;
  request.condVersion = condVersion;
  const int rc = runUpdate(client, name, msgType, encodeBody(request), nullptr, resultP);
  if (qcrLogShown(4)) qcrLog(4, "%s returned %d %s", tag, rc, resultP->state.toString().c_str());
  return rc;
}

}  // namespace

int Client::VGET(RequestResult* resultP) {
  qcrLog(4, "VGET()");
  *resultP = RequestResult{};
  QcrReply reply;
  const int rc = runRead(*this, "vget", MSG_TYPE_VGET, REPLY_TYPE_SEQ_COMMIT, &reply);
  if (rc == 0) takeState(&reply, resultP);
  if (qcrLogShown(4)) qcrLog(4, "vget() returned %d %s", rc, resultP->state.toString().c_str());
  return rc;
}

int Client::VPUT(const std::string& name, const std::string& value, int32_t newVersion,
         int32_t condVersion, RequestResult* resultP) {
  qcrLog(4, "VPUT('%s', '%s', %d, %d)", name.c_str(), value.c_str(), newVersion, condVersion);
  *resultP = RequestResult{};
  VputRequest request;
  request.name = name;
  request.value = value;
  request.newVersion = newVersion;
  request.condVersion = condVersion;
  const int rc = runUpdate(*this, "vput", MSG_TYPE_VPUT, encodeBody(request), nullptr, resultP);
  if (qcrLogShown(4)) qcrLog(4, "VPUT returned %d %s", rc, resultP->state.toString().c_str());
  return rc;
}

int Client::VDEL(const std::string& name, int32_t condVersion, RequestResult* resultP) {
  return runDelete(*this, "VDEL", "vdel", MSG_TYPE_VDEL, name, condVersion, resultP);
}

int Client::FPUT(const std::string& name, const std::string& localPath, int32_t newVersion,
         int32_t condVersion, int32_t quorumOption, RequestResult* resultP) {
  qcrLog(4, "FPUT('%s', '%s')", name.c_str(), localPath.c_str());
  *resultP = RequestResult{};
  if (!isRepositoryFileName(name)) return refuseName("FPUT", name);
  UploadFile upload{localPath, 0};
  FileStatus status;
  if (const int rc = fileStatus(localPath, &status); rc != 0) {
    qcrLog(4, "FPUT: get file size of '%s' failed: err %d", localPath.c_str(), rc);
    return rc;
  }
  // A device or a pipe has no size to announce (and opening a pipe waits).
  if (!status.regular) {
    qcrLog(1, "FPUT: '%s' is not a regular file", localPath.c_str());
    return EINVAL;
  }
  upload.size = status.size;
  FputRequest request;
  request.name = name;
  request.fileSize = upload.size;
  request.newVersion = newVersion;
  request.condVersion = condVersion;
  request.quorumOption = quorumOption;
  const std::vector<uint8_t> body = encodeBody(request);
  qcrLog(4, "FPUT: fileSize %lld newVersion %d condVersion %d uid size %d quorumOption %d len %zu",
         static_cast<long long>(upload.size), newVersion, condVersion, request.uid.getSize(),
         quorumOption, body.size());
  const int rc = runUpdate(*this, "fput", MSG_TYPE_FPUT, body, &upload, resultP);
  if (qcrLogShown(4)) qcrLog(4, "FPUT returned %d %s", rc, resultP->state.toString().c_str());
  return rc;
}

int Client::FLIST(RequestResult* resultP) {
  qcrLog(4, "FLIST()");
  *resultP = RequestResult{};
  QcrReply reply;
  // An fget without a name asks for the list of files.
  const int rc = runRead(*this, "flist", MSG_TYPE_FGET, REPLY_TYPE_SEQ_COMMIT_FLIST, &reply);
  if (rc == 0) {
    takeState(&reply, resultP);
    resultP->files = std::move(reply.files);
  }
  if (qcrLogShown(4)) qcrLog(4, "flist() returned %d %s", rc, resultP->state.toString().c_str());
  return rc;
}

int Client::FGET(const std::string& name, const std::string& localPath, int32_t condVersion,
         RequestResult* resultP) {
  qcrLog(4, "FGET('%s', '%s')", name.c_str(), localPath.c_str());
  *resultP = RequestResult{};
  // Refused before any server is asked: no answer could make the target usable.
  if (const int rc = checkFetchTarget(localPath); rc != 0) return rc;
  RetryState ctx = newRetryState("fget");
  QcrReply reply;
  const TargetFor target = [&localPath](const QcrReply&, ReceiveOptions* optionsP) {
    optionsP->target = localPath;
    return 0;
  };
  const int rc = runAttempts(&ctx, [&](Connection& conn, RetryState* ctxP) {
    uint32_t checksum = 0;
    return fetchFile(*this, conn, ctxP, name, condVersion, target, &reply, &checksum);
  });
  if (rc == 0) {
    takeState(&reply, resultP);
    resultP->fid = reply.fid;
    resultP->fileSize = reply.fileSize;
  }
  qcrLog(4, "fget() returned fid %d seq %lld %s", resultP->fid,
         static_cast<long long>(resultP->fileSize), resultP->state.toString().c_str());
  return rc;
}

int Client::FDEL(const std::string& name, int32_t condVersion, RequestResult* resultP) {
  if (!isRepositoryFileName(name)) {
    *resultP = RequestResult{};
    return refuseName("FDEL", name);
  }
  return runDelete(*this, "FDEL", "fdel", MSG_TYPE_FDEL, name, condVersion, resultP);
}

int Client::CONFIG(const ConfigChange& change, int32_t configVersion, int32_t quorumOption,
           RequestResult* resultP) {
  qcrLog(4, "CONFIG(%s, %s, %d)", change.config.nodesToString().c_str(),
         change.config.disksToString().c_str(), change.config.minNodes);
  *resultP = RequestResult{};
  ConfigRequest request;
  request.change = change;
  request.configVersion = configVersion;
  request.quorumOption = quorumOption;
  const int rc =
      runUpdate(*this, "config", MSG_TYPE_CONFIG, encodeBody(request), nullptr, resultP);
  if (qcrLogShown(4)) qcrLog(4, "CONFIG returned %d %s", rc, resultP->state.toString().c_str());
  return rc;
}

int Client::QUERY(RequestResult* resultP) {
  qcrLog(4, "QUERY()");
  *resultP = RequestResult{};
  QcrReply reply;
  const int rc = runRead(*this, "query", MSG_TYPE_QUERY, REPLY_TYPE_SEQ_COMMIT_QUERY, &reply);
  if (rc == 0) {
    takeState(&reply, resultP);
    resultP->authoritative = reply.authoritative;
  }
  qcrLog(4, "query() returned seq %d authoritative %d err %d dblk %s", resultP->seq,
         resultP->authoritative, rc, resultP->state.toString().c_str());
  return rc;
}

int Client::BACKUP(const std::string& localPath, bool compress, RequestResult* resultP) {
  qcrLog(4, "BACKUP('%s', %d)", localPath.c_str(), compress ? 1 : 0);
  *resultP = RequestResult{};
  QCR_ASSERT_MSG(!localPath.empty(), "fullFilePathP");
  // Every node of the cluster must be able to serve it.
  if (const std::string& config = session_.paths.clusterConfigFile; !config.empty()) {
    const int level = readMinReleaseLevel(config);
    if (level < kBackupReleaseLevel) {
      qcrLog(1, "Backup request not possible on mixed cluster (%d < %d)", level,
             kBackupReleaseLevel);
      return E_MIN_RELEASE;
    }
  }
  const std::vector<uint8_t> body = encodeBody(BackupRequest{compress ? 1 : 0});
  RetryState ctx = newRetryState("backup");
  BackupReply reply;
  std::string stored;
  const int rc = runAttempts(&ctx, [&](Connection& conn, RetryState* ctxP) {
    return backupExchange(conn, ctxP, body, localPath, &reply, &stored);
  });
  if (rc == 0) {
    resultP->fileSize = reply.archiveSize;
    resultP->compressed = reply.compressed != 0;
    resultP->archivePath = stored;
  }
  qcrLog(4, "BACKUP returned %d size %lld", rc, static_cast<long long>(resultP->fileSize));
  return rc;
}

}  // namespace qcr
