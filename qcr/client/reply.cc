#include "qcr/client/reply.h"

#include <cstdio>
#include <memory>
#include <string>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"

namespace qcr {

namespace {

std::string hexDump(const uint8_t* data, int len) {
  std::string text;
  char byte[4];
  for (int i = 0; i < len && text.size() < kLogMessageMax; ++i) {
    snprintf(byte, sizeof byte, " %02x", data[i]);
    text += byte;
  }
  return text;
}

// Decodes a body of type T into *r, even when it did not parse (the caller then
// drops the reply). Fields carry the same names in the bodies and in QcrReply,
// except the backup archive's size, which goes to fileSize.
template <class T>
int take(const uint8_t* data, int len, QcrReply* r) {
  T b;
  const int rc = decodeBody(data, static_cast<size_t>(len), &b);
  if constexpr (requires { b.seq; }) r->seq = b.seq;
  if constexpr (requires { b.state; }) r->state = std::move(b.state);
  if constexpr (requires { b.error; }) r->error = b.error;
  if constexpr (requires { b.files; }) r->files = std::move(b.files);
  if constexpr (requires { b.uid; }) r->uid = b.uid;
  if constexpr (requires { b.needFile; }) r->needFile = b.needFile;
  if constexpr (requires { b.authoritative; }) r->authoritative = b.authoritative;
  if constexpr (requires { b.nlVersion; }) r->nlVersion = b.nlVersion;
  if constexpr (requires { b.fid; }) r->fid = b.fid;
  if constexpr (requires { b.fileSize; }) r->fileSize = b.fileSize;
  if constexpr (requires { b.archiveSize; }) r->fileSize = b.archiveSize;
  if constexpr (requires { b.compressed; }) r->compressed = b.compressed;
  return rc;
}

// Parses the body of a reply into *r by its type. 0 or 818; -1 for a type that
// is no reply to a repository request.
int parseReply(const uint8_t* data, int len, QcrReply* r) {
  switch (r->type) {
    case REPLY_TYPE_SEQ_COMMIT: return take<SeqCommitReply>(data, len, r);
    case REPLY_TYPE_SEQ_COMMIT_ERROR: return take<SeqCommitErrorReply>(data, len, r);
    case REPLY_TYPE_SEQ_COMMIT_FGET: return take<SeqCommitFgetReply>(data, len, r);
    case REPLY_TYPE_SEQ_COMMIT_FLIST: return take<SeqCommitFlistReply>(data, len, r);
    case REPLY_TYPE_UID: return take<UidReply>(data, len, r);
    case REPLY_TYPE_UID_FPUT: return take<UidFputReply>(data, len, r);
    case REPLY_TYPE_FAILED_NODE_VER: return take<FailedNodeVerReply>(data, len, r);
    case REPLY_TYPE_DISCOVER: return take<DiscoverReply>(data, len, r);
    case REPLY_TYPE_BACKUP: return take<BackupReply>(data, len, r);
    case REPLY_TYPE_SEQ_COMMIT_QUERY: return take<SeqCommitQueryReply>(data, len, r);
    default: return -1;
  }
}

// What a parsed reply means for the attempt loop; returns the attempt's result.
int applyReply(Client& client, const Connection& conn, RetryState* ctxP, const QcrReply& r) {
  switch (r.type) {
    case REPLY_TYPE_SEQ_COMMIT:
    case REPLY_TYPE_SEQ_COMMIT_FLIST:
      client.updateClientCache(r.seq, r.state, conn.peerClusterId());
      ctxP->active = false;
      return 0;
    case REPLY_TYPE_SEQ_COMMIT_ERROR:
      client.updateClientCache(r.seq, r.state, conn.peerClusterId());
      if (r.error == E_NO_LEADER_CONTACT) {
        ctxP->fatal = true;
        ctxP->firstError = E_NO_LEADER_CONTACT;
      } else if (r.error != E_NOT_ACTIVE) {
        ctxP->active = false;
      }
      return r.error;
    case REPLY_TYPE_FAILED_NODE_VER:
      qcrLog(4, "ReceiveQCRReply: nlVersion: mine %d received %d", client.cache().nlVersion,
             r.nlVersion);
      return r.error;
    default:
      return 0;
  }
}

}  // namespace

bool isFinalAnswer(int result) {
  return result == E_NOT_FOUND || result == E_VERSION_MISMATCH || result == E_VERSION_MATCH ||
         result == E_INVALID_VERSION;
}

int ReceiveQCRReply(Client& client, Connection& conn, RetryState* ctxP, QcrReply* replyP) {
  *replyP = QcrReply{};
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  int rc = conn.receive(&replyP->type, &data, &len);
  if (rc != 0) {
    if (isFinalAnswer(rc)) ctxP->active = false;
    return rc;
  }
  rc = parseReply(data.get(), len, replyP);
  if (rc < 0) {
    qcrLog(1, "Unexpected reply type: %d received from: %s-%d rlen: %d rbuffer:%s", replyP->type,
           addressText(conn.peerAddress()).c_str(), conn.getSocket(), len,
           hexDump(data.get(), len).c_str());
    QCR_ASSERT_MSG(false, "unexpected reply type %d", replyP->type);
  }
  if (rc != 0) {
    conn.markBad();
    qcrLog(3, "ReceiveQCRReply: ill-formed %s reply (len %d) from %s", msgName(replyP->type), len,
           addressText(conn.peerAddress()).c_str());
    return rc;
  }
  return applyReply(client, conn, ctxP, *replyP);
}

}  // namespace qcr
