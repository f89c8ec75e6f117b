#include "qcr/client/fetch.h"

#include <cerrno>

#include "basic/assert.h"
#include "basic/file_status.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/file_names.h"

namespace qcr {

int checkFetchTarget(const std::string& path) {
  if (path.empty()) return 0;
  FileStatus status;
  const int rc = linkStatus(path, &status);
  if (rc == ENOENT) return 0;
  if (rc != 0) {
    qcrLog(1, "fget: cannot examine '%s' (err %d)", path.c_str(), rc);
    return rc;
  }
  if (status.regular) return 0;
  // A device, fifo or socket would be replaced by a regular file, a directory
  // cannot be; a link would be replaced while its owner meant its target.
  const char* kind = status.directory ? "a directory" : status.symlink ? "a symbolic link"
                                                                       : "not a regular file";
  qcrLog(1, "fget: '%s' is %s: not replaced", path.c_str(), kind);
  return status.directory ? EISDIR : EINVAL;
}

int fetchFile(Client& client, Connection& conn, RetryState* ctxP, const std::string& name,
              int32_t condVersion, const TargetFor& targetFor, QcrReply* replyP,
              uint32_t* checksumP) {
  const bool privateFile = isSpecialQcrFile(name);
  FgetRequest request;
  request.name = name;
  request.condVersion = condVersion;
  const std::vector<uint8_t> body = encodeBody(request);
  int rc = conn.send(privateFile ? MSG_TYPE_FGET_PRIV : MSG_TYPE_FGET, body.data(),
                     static_cast<int>(body.size()));
  if (rc == 0) rc = ReceiveQCRReply(client, conn, ctxP, replyP);
  if (rc != 0) return rc;
  QCR_ASSERT_MSG(replyP->type == REPLY_TYPE_SEQ_COMMIT_FGET, "unexpected reply %d", replyP->type);
  ReceiveOptions options;
  rc = targetFor(*replyP, &options);
  if (rc != 0) return rc;
  options.expectedSize = replyP->fileSize;
  options.privateFile = privateFile;
  options.progress = client.transferProgress();
  qcrLog(4, "Receive '%s' and store it under: '%s' (%lld)", name.c_str(), options.target.c_str(),
         static_cast<long long>(replyP->fileSize));
  bool localFailure = false;
  rc = receiveFile(conn, options, checksumP, &localFailure);
  if (rc != 0) {
    // Another server cannot help when this node's own disk or file failed.
    if (localFailure) ctxP->active = false;
    return rc;
  }
  client.updateClientCache(replyP->seq, replyP->state, conn.peerClusterId());
  ctxP->active = false;
  return 0;
}

}  // namespace qcr
