#include "qcr/data/state_file.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "basic/assert.h"
#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"
#include "qcr/data/file_ops.h"
#include "qcr/coding/text.h"

namespace qcr {

namespace {

constexpr int kCrcOffset = 4;
constexpr int kLenOffset = 8;
constexpr int kCidOffset = 12;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The cluster id check of a load: a known id must match a non-zero file id; an
// unknown one is adopted from the file whenever the file's header could be read.
int checkClusterId(const uint8_t* buf, size_t n, int rc, uint64_t* knownP) {
  uint64_t cid = 0;
  if (knownP == nullptr || n < kCidOffset + 8) return rc;
  (void)getU64(buf + kCidOffset, buf + n, &cid);
  uint64_t& known = *knownP;
  if (known == 0) {
    known = cid;
  } else if (cid != 0 && cid != known) {
    qcrLog(3, "Paxos file cluster id %llu differs from %llu", static_cast<unsigned long long>(cid),
           static_cast<unsigned long long>(known));
    return E_CORRUPT_STATE;
  }
  return rc;
}

}  // namespace

int PaxosFileHeader::getSize() const {
  return kPaxosFixedHeaderSize + sizeVarUInt(fmtVersion) + sizeVarUInt(lastWriterId, -1);
}

uint8_t* PaxosFileHeader::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putU64(putU32(putU32(putU32(pBuffer, magic), crc), len), cid);
  pBuffer = putVarUInt(putVarUInt(pBuffer, fmtVersion), lastWriterId, -1);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* PaxosFileHeader::read(const uint8_t* p, const uint8_t* end) {
  p = getU64(getU32(getU32(getU32(p, end, &magic), end, &crc), end, &len), end, &cid);
  return getVarInt32(getVarInt32(p, end, &fmtVersion), end, &lastWriterId, -1);
}

std::string PaxosFileHeader::toString() const {
  char text[160];
  snprintf(text, sizeof text, "magic %08X, crc %08X, len %d, fmtVersion %d cid %llu lastWriterId %d",
           magic, crc, static_cast<int>(len), fmtVersion, static_cast<unsigned long long>(cid),
           lastWriterId);
  return text;
}

std::string paxosCopyName(const std::string& paxosFile, int copy) {
  return paxosFile + "." + std::to_string(copy);
}

std::vector<uint8_t> encodeStateFile(const PaxosFileData& data, uint64_t cid,
                                     int32_t lastWriterId) {
  PaxosFileHeader header;
  header.cid = cid;
  header.fmtVersion = kPaxosFmtVersion;
  header.lastWriterId = lastWriterId;
  const int size = data.getSize() + header.getSize();
  header.len = static_cast<uint32_t>(size);
  std::vector<uint8_t> buffer(static_cast<size_t>(size));
  uint8_t* const dataP = buffer.data();
  uint8_t* bufP = data.write(header.write(dataP));
  QCR_ASSERT(bufP == dataP + size);
  putU32(dataP + kCrcOffset, crcExtend(0, dataP + kLenOffset, static_cast<size_t>(size) - kLenOffset));
  return buffer;
}

std::vector<uint8_t> encodeStateFile(const PaxosFileData& data, uint64_t cid,
                                     int32_t lastWriterId,
                                     const std::vector<uint8_t>& committedBytes) {
  PaxosFileHeader header;
  header.cid = cid;
  header.fmtVersion = kPaxosFmtVersion;
  header.lastWriterId = lastWriterId;
  const PaxosDblockSummary& d = data.dblk;
  // The layout of PaxosFileData::write with the committed state's bytes copied in.
  const int fields = sizeVarUInt(data.epoch) + sizeVarUInt(data.slotAssignmentVersion) +
                     sizeVarUInt(d.seq) + d.mbal.getSize() + d.bal.getSize() + d.inp.getSize() +
                     sizeVarUInt(d.leaderChallengeVersion);
  const int size = header.getSize() + fields + static_cast<int>(committedBytes.size());
  header.len = static_cast<uint32_t>(size);
  std::vector<uint8_t> buffer(static_cast<size_t>(size));
  uint8_t* const dataP = buffer.data();
  uint8_t* p = putVarUInt(putVarUInt(header.write(dataP), data.epoch), data.slotAssignmentVersion);
  p = putVarUInt(d.inp.write(d.bal.write(d.mbal.write(putVarUInt(p, d.seq)))), d.leaderChallengeVersion);
  QCR_ASSERT(p + committedBytes.size() == dataP + size);
  if (!committedBytes.empty()) memcpy(p, committedBytes.data(), committedBytes.size());
  putU32(dataP + kCrcOffset, crcExtend(0, dataP + kLenOffset, static_cast<size_t>(size) - kLenOffset));
  return buffer;
}

int verifyStateBuffer(const uint8_t* buf, size_t n) {
  uint32_t len = 0, magic = 0, crc = 0;
  if (n < 12 || getU32(buf + kLenOffset, buf + n, &len) == nullptr || n < len ||
      len < kPaxosFixedHeaderSize) {
    qcrLog(3, "Bad Paxos data length: have %d need %d", static_cast<int>(n), static_cast<int>(len));
    return E_CORRUPT_STATE;
  }
  (void)getU32(buf, buf + n, &magic);
  if (magic != kPaxosMagic) {
    qcrLog(3, "Bad Paxos magic %08X", magic);
    return E_CORRUPT_STATE;
  }
  (void)getU32(buf + kCrcOffset, buf + n, &crc);
  const uint32_t calculated = crcExtend(0, buf + kLenOffset, len - kLenOffset);
  if (crc != calculated) {
    qcrLog(3, "Bad Paxos CRC: found %08x calculated %08x", crc, calculated);
    return E_CORRUPT_STATE;
  }
  return 0;
}

int parseStateBuffer(const uint8_t* buf, size_t n, PaxosFileHeader* headerP, PaxosFileData* dataP,
                     size_t* consumedP) {
  *consumedP = 0;
  if (verifyStateBuffer(buf, n) != 0) return E_CORRUPT_STATE;
  // Verified: the length field is readable and within n.
  uint32_t len = 0;
  (void)getU32(buf + kLenOffset, buf + n, &len);
  const uint8_t* const end = buf + len;
  const uint8_t* p = headerP->read(buf, end);
  p = dataP->read(p, end, headerP->fmtVersion);  // after the header: it gives the format
  if (p == nullptr) return E_CORRUPT_STATE;
  *consumedP = static_cast<size_t>(p - buf);
  return 0;
}

int PaxosLocalFile::storeToFile(const std::string& path, const StateFileOwner& owner) {
  const auto start = std::chrono::steady_clock::now();
  const std::vector<uint8_t> buffer =
      encodeStateFile(data, owner.clusterId, owner.nodeId);
  (void)header.read(buffer.data(), buffer.data() + buffer.size());
  File file;
  int rc = file.openWrite(path, kStateFileMode);
  if (rc != 0) {
    qcrLog(1, "PaxosLocalFile::storeToFile: open %s failed (%d)", path.c_str(), rc);
    return rc;
  }
  size_t written = 0;
  rc = file.write(buffer.data(), buffer.size(), &written);
  // Forced to disk so that a rename after the store never exposes missing data.
  if (rc == 0 && written == buffer.size()) rc = file.sync();
  if (rc != 0 || written < buffer.size()) {
    rc = ioError(rc);
    qcrLog(1, "PaxosLocalFile::storeToFile() failed: wrote %d (expected %d) err %d",
           static_cast<int>(written), static_cast<int>(buffer.size()), rc);
  } else {
    qcrLog(4, "PaxosLocalFile::storeToFile() wrote %d bytes to %s", static_cast<int>(written),
           path.c_str());
  }
  const int closeRc = file.close();
  if (rc == 0) rc = closeRc;
  const double seconds = secondsSince(start);
  if (seconds >= 5.0) qcrLog(1, "Storing %s took %.1f seconds", path.c_str(), seconds);
  return rc;
}

int PaxosLocalFile::loadFromFile(const std::string& path, uint64_t* clusterIdP) {
  File file;
  int rc = file.openRead(path);
  if (rc != 0) {
    qcrLog(1, "Open %s failed (%d)", path.c_str(), rc);
    return rc;
  }
  rc = file.size(&fileSize);
  QCR_ASSERT(rc == 0);
  std::vector<uint8_t> buffer(static_cast<size_t>(fileSize));
  size_t got = 0;
  rc = file.read(buffer.data(), buffer.size(), &got);
  (void)file.close();  // read-only: nothing to lose
  if (got < buffer.size()) {
    qcrLog(1, "PaxosFileData::loadFromFile() failed: read %d (expected %d)", static_cast<int>(got),
           static_cast<int>(buffer.size()));
    return ioError(rc);
  }
  size_t consumed = 0;
  rc = parseStateBuffer(buffer.data(), buffer.size(), &header, &data, &consumed);
  rc = checkClusterId(buffer.data(), buffer.size(), rc, clusterIdP);
  qcrLog(6, "Bytes processed (file: '%s'): %d", path.c_str(), static_cast<int>(consumed));
  return rc;
}

std::string PaxosLocalFile::dump(const std::string& path) const {
  char line[256];
  snprintf(line, sizeof line, "%s (size %lld):\n", path.c_str(), static_cast<long long>(fileSize));
  std::string out = line;
  out.append("hdr: ").append(header.toString()).append("\n");
  snprintf(line, sizeof line, "pfd: epoch %d, slotAssignmentVersion %d\n", data.epoch,
           data.slotAssignmentVersion);
  out += line;
  const PaxosDblockSummary& d = data.dblk;
  out.append(strCat({"dblk: seq ", std::to_string(d.seq), ", mbal ", d.mbal.toString(), ", bal ",
                     d.bal.toString(), ", inp ", d.inp.toString(), ", leaderChallengeVersion ",
                     std::to_string(d.leaderChallengeVersion), "\n"}));
  return out.append(d.committed.dump());
}

int loadStateCopies(const std::string& paxosFile, uint64_t* clusterIdP, PaxosLocalFile* fileP,
                    StateCopies* copiesP) {
  *copiesP = StateCopies{};
  for (int i = 0; i < 2; ++i) {
    const std::string path = paxosCopyName(paxosFile, i + 1);
    copiesP->exists[i] = fileExists(path);
    PaxosLocalFile copy;
    const int rc = copiesP->rc[i] = copy.loadFromFile(path, clusterIdP);
    if (rc != 0) {
      qcrLog(4, "Load from file: '%s' failed (%d)", path.c_str(), rc);
      continue;
    }
    qcrLog(4, "Load from file: '%s' successful", path.c_str());
    if (copiesP->chosen == 0 || copy.data.dblk.seq > fileP->data.dblk.seq) {
      *fileP = std::move(copy);
      copiesP->chosen = i + 1;
    }
  }
  if (copiesP->chosen != 0) return 0;
  if (!copiesP->exists[0] && !copiesP->exists[1]) {
    copiesP->finding = "Both paxos files do not exist";
    return ENOENT;
  }
  copiesP->finding = "Both paxos files corrupt";
  return E_CORRUPT_STATE;
}

int storeWithReplacement(const PaxosFileData& data, const StateFileOwner& owner,
                         const std::string& statePath,
                         const std::string& targetPath) {
  PaxosLocalFile file;
  file.data = data;
  if (!targetPath.empty()) {
    const int rc = file.storeToFile(targetPath, owner);
    if (rc != 0)
      qcrLog(1, "Storing paxos file data to '%s' failed (%d)", targetPath.c_str(), rc);
    else
      qcrLog(4, "Storing paxos file data to '%s' successful", targetPath.c_str());
    return rc;
  }
  const std::string temp = tempFileName(statePath);
  int rc = file.storeToFile(temp, owner);
  if (rc == 0) {
    rc = replaceRename(temp, statePath);
    if (rc != 0)
      qcrLog(1, "Rename '%s' to '%s' failed (%d)", temp.c_str(), statePath.c_str(), rc);
    else
      qcrLog(4, "Rename '%s' to '%s' successful", temp.c_str(), statePath.c_str());
  }
  // The rename lives in the directory: until that reaches the disk, a crash can
  // bring back the old copy or none.
  if (rc == 0) {
    rc = syncDirectory(parentDirectory(statePath));
    if (rc != 0) qcrLog(1, "Syncing the directory of '%s' failed (%d)", statePath.c_str(), rc);
  }
  if (rc != 0) (void)removeFile(temp);  // a failed store never stays behind
  return rc;
}

}  // namespace qcr
