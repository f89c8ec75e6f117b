// Keeping the local node list file (qcr.nodes) in step with the committed one.
#include "basic/files.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/client/fetch.h"
#include "qcr/coding/result.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"
#include "qcr/data/list_files.h"

namespace qcr {

namespace {

constexpr char kNodesFileName[] = "qcr.nodes";

// The committed-directory path of the qcr.nodes version in state, or "" when
// state has none.
std::string committedNodesPath(const std::string& committedDir, const CommittedState& state,
                               FileRecord* recordP) {
  const auto iter = state.files.find(kNodesFileObjId);
  if (iter == state.files.end()) return "";
  *recordP = iter->second;
  return committedDir + "/" +
         committedFileName(kNodesFileName, kNodesFileObjId, iter->second.version, iter->second.crc,
                           iter->second.uid);
}

// One attempt of the pull: the server answers with its current version, which is
// kept under its own committed name once its content matches the recorded CRC.
int pullAttempt(Client& client, Connection& conn, RetryState* ctxP, std::string* pathP) {
  FileRecord record;
  const TargetFor target = [&](const QcrReply& reply, ReceiveOptions* optionsP) {
    *pathP = committedNodesPath(client.repoSession().paths.committedDir, reply.state, &record);
    if (pathP->empty()) return E_ILL_FORMED_MSG;
    qcrLog(4, "pulling file %s '%s' from %s", uidToString(record.uid).c_str(), pathP->c_str(),
           addressText(conn.peerAddress()).c_str());
    optionsP->target = *pathP;
    optionsP->rename = RenameVariant::kKeep;
    optionsP->sync = true;
    return 0;
  };
  QcrReply reply;
  uint32_t checksum = 0;
  const int rc = fetchFile(client, conn, ctxP, kNodesFileName, -1, target, &reply, &checksum);
  if (rc == 0 && checksum != record.crc) {
    qcrLog(1, "pulling file '%s': crc 0x%x differs from the committed 0x%x", pathP->c_str(),
           checksum, record.crc);
    (void)removeFile(*pathP);
    ctxP->active = true;
    return E_IO;
  }
  return rc;
}

void installNodeList(Session& s, const std::string& committedPath) {
  NodeList list;
  int rc = readNodeList(committedPath, &list);
  if (rc == 0) rc = writeNodeList(s.paths.nodesFile, list);
  if (rc != 0) {
    qcrLog(1, "checkLocalNodesFile: installing '%s' failed (err %d)", committedPath.c_str(), rc);
    return;
  }
  s.nodeList = std::move(list);
  // Addresses are looked up again on demand for the new list.
  s.nodeAddrById.clear();
  s.nodeIdByAddr.clear();
  qcrLog(4, "checkLocalNodesFile: '%s' installed as '%s'", committedPath.c_str(),
         s.paths.nodesFile.c_str());
}

}  // namespace

void Client::checkLocalNodesFile(const CommittedState& state) {
  if (!keepsFiles()) return;
  FileRecord record;
  const std::string path = committedNodesPath(session_.paths.committedDir, state, &record);
  if (path.empty()) {
    qcrLog(4, "checkLocalNodesFile: no committed node list");
    return;
  }
  if (fileExists(path)) {
    qcrLog(5, "checkLocalNodesFile: local nodes cfg file '%s' up-to-date", path.c_str());
    return;
  }
  if (pullingNodes_) return;
  qcrLog(4, "checkLocalNodesFile: cache stale; pulling %s", uidToString(record.uid).c_str());
  pullingNodes_ = true;
  RetryState ctx = newRetryState("pull");
  std::string pulled;
  const int rc = runAttempts(&ctx, [this, &pulled](Connection& conn, RetryState* ctxP) {
    return pullAttempt(*this, conn, ctxP, &pulled);
  });
  pullingNodes_ = false;
  if (rc != 0) {
    qcrLog(1, "checkLocalNodesFile: pulling the node list failed (err %d)", rc);
    return;
  }
  installNodeList(session_, pulled);
}

int Client::storeLocalNodeList(const NodeList& list) {
  if (keepsFiles()) {
    if (const int rc = writeNodeList(session_.paths.nodesFile, list); rc != 0) return rc;
  }
  session_.nodeList = list;
  session_.nodeAddrById.clear();
  session_.nodeIdByAddr.clear();
  return 0;
}

}  // namespace qcr
