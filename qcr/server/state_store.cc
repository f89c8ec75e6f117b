#include "qcr/server/state_store.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <tuple>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/overwrite.h"
#include "qcr/coding/result.h"
#include "qcr/data/state_file.h"

namespace qcr {

bool stateIsNewer(const PaxosFileData& a, const PaxosFileData& b) {
  const PaxosDblockSummary& x = a.dblk;
  const PaxosDblockSummary& y = b.dblk;
  return std::tie(x.seq, x.mbal, x.bal, a.epoch) > std::tie(y.seq, y.mbal, y.bal, b.epoch);
}

StateStore::StateStore(const std::string& paxosFile, int32_t nodeId) : nodeId_(nodeId) {
  copies_[0] = paxosCopyName(paxosFile, 1);
  copies_[1] = paxosCopyName(paxosFile, 2);
  for (int i = 0; i < 2; ++i) kept_[i] = std::make_unique<KeptFile>(copies_[i], kStateFileMode);
}

namespace {

// 0, ENOENT, or 214 for a copy that does not pass its checks; *findingP says
// which, in words.
int loadCopy(const std::string& path, uint64_t expectedCid, PaxosFileData* dataP,
             uint64_t* cidP, std::string* findingP) {
  if (!fileExists(path)) {
    *findingP = path + " does not exist";
    return ENOENT;
  }
  std::string bytes;
  int rc = readFile(path, &bytes);
  if (rc != 0) {
    qcrLog(1, "StateStore::load: reading %s failed (%d)", path.c_str(), rc);
    *findingP = path + " cannot be read: " + errText(rc);
    return E_CORRUPT_STATE;
  }
  PaxosFileHeader header;
  size_t consumed = 0;
  const auto* buf = reinterpret_cast<const uint8_t*>(bytes.data());
  rc = parseStateBuffer(buf, bytes.size(), &header, dataP, &consumed);
  *findingP = path + (rc == 0 ? " is intact"
                              : " is corrupt: its length, magic number, checksum or content "
                                "do not check");
  if (rc == 0 && expectedCid != 0 && header.cid != 0 && header.cid != expectedCid) {
    qcrLog(1, "%s belongs to cluster %llu, not %llu", path.c_str(),
           static_cast<unsigned long long>(header.cid),
           static_cast<unsigned long long>(expectedCid));
    *findingP = path + " belongs to cluster " + std::to_string(header.cid) + ", not " +
                std::to_string(expectedCid);
    rc = E_CORRUPT_STATE;
  }
  *cidP = header.cid;
  return rc;
}

}  // namespace

int StateStore::load(uint64_t expectedCid, PaxosFileData* dataP, uint64_t* cidP) {
  PaxosFileData data[2];
  uint64_t cid[2] = {0, 0};
  int rc[2];
  std::string finding[2];
  for (int i = 0; i < 2; ++i) {
    rc[i] = loadCopy(copies_[i], expectedCid, &data[i], &cid[i], &finding[i]);
    qcrLog(4, "StateStore::load: copy '%s' %s (%d)", copies_[i].c_str(),
           rc[i] == 0 ? "loaded" : "not loaded", rc[i]);
  }
  findings_ = finding[0] + "; " + finding[1];
  if (rc[0] != 0 && rc[1] != 0) return rc[0] == ENOENT && rc[1] == ENOENT ? ENOENT : E_CORRUPT_STATE;
  int best = rc[0] != 0 ? 1 : rc[1] != 0 ? 0 : (stateIsNewer(data[1], data[0]) ? 1 : 0);
  *dataP = data[best];
  *cidP = cid[best];
  next_ = 1 - best;  // never overwrite the copy just chosen
  return 0;
}

void StateStore::setCrashPoint(int store, int64_t bytes) {
  crashStore_ = store;
  crashBytes_ = bytes;
}

int StateStore::store(const PaxosFileData& data, uint64_t cid,
                      const std::vector<uint8_t>* committedBytes) {
  const std::vector<uint8_t> bytes = committedBytes != nullptr
                                         ? encodeStateFile(data, cid, nodeId_, *committedBytes)
                                         : encodeStateFile(data, cid, nodeId_);
  std::string_view content(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string& path = copies_[next_];
  ++stores_;
  if (!fullDiskFlag_.empty() && fileExists(fullDiskFlag_)) {
    qcrLog(1, "StateStore::store: writing %s failed (err %d): full-disk flag %s is set",
           path.c_str(), ENOSPC, fullDiskFlag_.c_str());
    findings_ = "writing " + path + " failed: " + errText(ENOSPC);
    return ENOSPC;
  }
  if (stores_ == crashStore_) {
    const size_t cut = static_cast<size_t>(crashBytes_) < content.size()
                           ? static_cast<size_t>(crashBytes_) : content.size();
    (void)overwriteFile(path, content.substr(0, cut), kStateFileMode);
    qcrLog(0, "StateStore::store: crash point at store %d: stopping after %zu of %zu bytes", stores_, cut, content.size());
    std::_Exit(9);
  }
  const int rc = kept_[next_]->overwrite(content);
  if (rc != 0) {
    qcrLog(1, "StateStore::store: writing %s failed (err %d)", path.c_str(), rc);
    findings_ = "writing " + path + " failed: " + errText(rc);
    return rc;
  }
  qcrLog(6, "StateStore::store: wrote %zu bytes to %s", bytes.size(), path.c_str());
  next_ = 1 - next_;
  return 0;
}

}  // namespace qcr
