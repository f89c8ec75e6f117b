#include "qcr/transfer/transfer_copy.h"

#include <cerrno>
#include <memory>

#include "basic/assert.h"
#include "basic/file_status.h"
#include "basic/log.h"
#include "qcr/comm/conn_cache.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/result.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

namespace {

constexpr int kFirstPassConnectTimeoutMs = 1000;
constexpr int kPasses = 2;

// The error of a receiver's answer to a copied file: 0 for ok, the reason of a
// failed answer, E_ILL_FORMED_MSG for anything else.
int copyReceipt(const Message& reply) {
  if (reply.type == MSG_TYPE_OK) return 0;
  if (reply.type != MSG_TYPE_FAILED) return E_ILL_FORMED_MSG;
  const uint8_t* const end = reply.body.data() + reply.body.size();
  int32_t error = 0;
  const uint8_t* p = getVarInt32(reply.body.data(), end, &error, -1);
  return p != nullptr && p == end && error != 0 ? error : E_ILL_FORMED_MSG;
}

// One node: connect, announce, send, and wait for the receipt. The connection goes back to the cache or
// is closed either way.
int copyToNode(const std::string& path, const FileAnnouncement& announcement,
               const std::vector<uint8_t>& body, const PeerAddress& address,
               const ConnectParams& params) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = connect(address, params, &conn);
  if (rc != 0) return rc;
  qcrLog(4, "copying file '%s' to %s", path.c_str(), addressText(address).c_str());
  rc = conn->send(MSG_TYPE_CP_TO, body.data(), static_cast<int>(body.size()));
  bool localFailure = false;
  if (rc == 0) rc = sendFile(*conn, path, announcement.size, &localFailure);
  // The receiver says whether it kept the file: ok, or failed with its reason.
  Message reply;
  if (rc == 0) rc = conn->receive(&reply);
  if (rc == 0) rc = copyReceipt(reply);
  if (rc != 0) conn->markBad();
  releaseConnection(std::move(conn), params.cache);
  return rc;
}

}  // namespace

int FileAnnouncement::getSize() const {
  return sizeString(name) + sizeVarUInt(size) + sizeVarUInt(mode) + sizeVarUInt(uid) +
         sizeVarUInt(gid) + sizeVarUInt(atime) + sizeVarUInt(mtime) + sizeString(destination);
}

uint8_t* FileAnnouncement::write(uint8_t* p) const {
  p = putString(p, name);
  p = putVarUInt(p, size);
  p = putVarUInt(p, mode);
  p = putVarUInt(p, uid);
  p = putVarUInt(p, gid);
  p = putVarUInt(p, atime);
  p = putVarUInt(p, mtime);
  return putString(p, destination);
}

const uint8_t* FileAnnouncement::read(const uint8_t* p, const uint8_t* end) {
  uint64_t sizeValue = 0, atimeValue = 0, mtimeValue = 0;
  p = getString(p, end, &name);
  p = getVarUInt64(p, end, &sizeValue);
  p = getVarUInt32(p, end, &mode);
  p = getVarUInt32(p, end, &uid);
  p = getVarUInt32(p, end, &gid);
  p = getVarUInt64(p, end, &atimeValue);
  p = getVarUInt64(p, end, &mtimeValue);
  p = getString(p, end, &destination);
  size = static_cast<int64_t>(sizeValue);
  atime = static_cast<int64_t>(atimeValue);
  mtime = static_cast<int64_t>(mtimeValue);
  return p;
}

int announceFile(const std::string& path, const std::string& destination,
                 FileAnnouncement* announcementP) {
  FileStatus status;
  const int rc = fileStatus(path, &status);
  if (rc != 0) return rc;
  if (!status.regular) {
    qcrLog(1, "%s: not a regular file", path.c_str());
    return EINVAL;
  }
  *announcementP = FileAnnouncement{path,       status.size,  status.mode,  status.uid,
                                    status.gid, status.atime, status.mtime, destination};
  return 0;
}

int copyFileToNodes(const std::string& path, const std::string& destination,
                    const std::vector<PeerAddress>& nodes, const ConnectParams& params,
                    int* numSuccessP) {
  *numSuccessP = 0;
  FileAnnouncement announcement;
  const int rc = announceFile(path, destination, &announcement);
  if (rc != 0) return rc;
  const int msgLen = announcement.getSize();
  std::vector<uint8_t> body(static_cast<size_t>(msgLen));
  uint8_t* const msgP = body.data();
  const uint8_t* const bufP = announcement.write(msgP);
  QCR_ASSERT(bufP == msgP + msgLen);
  int passErr = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    ConnectParams passParams = params;
    passParams.connectTimeoutMs = pass == 0 ? kFirstPassConnectTimeoutMs : -1;
    passErr = 0;
    *numSuccessP = 0;
    for (const PeerAddress& node : nodes) {
      const std::string text = addressText(node);
      passErr = copyToNode(path, announcement, body, node, passParams);
      if (passErr != 0) {
        qcrLog(4, "copying file '%s' to %s failed (%d), retry...", path.c_str(), text.c_str(),
               passErr);
        break;
      }
      ++*numSuccessP;
      qcrLog(4, "copying file '%s' to %s successful", path.c_str(), text.c_str());
    }
    if (passErr == 0) return 0;
  }
  return passErr;
}

}  // namespace qcr
