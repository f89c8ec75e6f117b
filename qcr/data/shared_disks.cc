#include "qcr/data/shared_disks.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

namespace {

int openBlock(File* fileP, const std::string& path, int slot) {
  if (slot < 0 || slot >= MaxPaxosSlots) return EINVAL;
  return fileP->openReadWrite(path, kDiskFileMode);
}

std::string diskIds(const DiskList& disks) {
  std::string ids = "[";
  for (const DiskEntry& d : disks) ids += (ids.size() > 1 ? "," : "") + std::to_string(d.id);
  return ids + "]";
}

}  // namespace

int checkDiskFile(const std::string& path) {
  if (!fileExists(path)) return ENOENT;
  File file;  // refuses links and anything but a regular file; creates nothing here
  const int rc = file.openReadWrite(path, kDiskFileMode);
  const int closed = file.close();
  return rc != 0 ? rc : closed;
}

int writeDiskBlock(const std::string& path, int slot, const PaxosFileData& data,
                   const StateFileOwner& owner, bool create) {
  if (!create) {
    if (const int rc = checkDiskFile(path); rc != 0) return rc;
  }
  std::vector<uint8_t> image = encodeStateFile(data, owner.clusterId, owner.nodeId);
  if (static_cast<int64_t>(image.size()) > kDiskBlockBytes) return E2BIG;
  // The whole block: no bytes of an older, longer image stay behind the new one.
  image.resize(static_cast<size_t>(kDiskBlockBytes), 0);
  File file;
  int rc = openBlock(&file, path, slot);
  if (rc == 0) rc = file.writeAllAt(image.data(), image.size(), slot * kDiskBlockBytes);
  if (rc == 0) rc = file.sync();
  const int closed = file.close();
  if (rc == 0) rc = closed;
  if (rc != 0) qcrLog(1, "writing block %d of disk '%s' failed (%d)", slot, path.c_str(), rc);
  return rc;
}

int readDiskBlock(const std::string& path, int slot, PaxosFileHeader* headerP,
                  PaxosFileData* dataP) {
  if (slot < 0 || slot >= MaxPaxosSlots) return EINVAL;
  File file;
  int rc = file.openRead(path);
  if (rc != 0) return rc;
  int64_t size = 0;
  rc = file.size(&size);
  if (rc != 0) return rc;
  const int64_t offset = slot * kDiskBlockBytes;
  if (size <= offset) return ENOENT;  // the disk was never written this far
  const int64_t avail = std::min(kDiskBlockBytes, size - offset);
  // The image's own length (a big-endian word behind magic and CRC) says how much
  // to read: a reader that polls the disks reads a few kilobytes, not the block.
  uint8_t fixed[kPaxosFixedHeaderSize] = {};
  if (avail < kPaxosFixedHeaderSize) return E_CORRUPT_STATE;
  rc = file.readAllAt(fixed, sizeof fixed, offset);
  if (rc != 0) return rc;
  if (std::all_of(std::begin(fixed), std::end(fixed), [](uint8_t b) { return b == 0; })) {
    return ENOENT;  // a block never written
  }
  const int64_t len = (int64_t{fixed[8]} << 24) | (int64_t{fixed[9]} << 16) |
                      (int64_t{fixed[10]} << 8) | int64_t{fixed[11]};
  if (len < kPaxosFixedHeaderSize || len > avail) return E_CORRUPT_STATE;
  std::vector<uint8_t> block(static_cast<size_t>(len));
  rc = file.readAllAt(block.data(), block.size(), offset);
  if (rc != 0) return rc;
  size_t consumed = 0;
  return parseStateBuffer(block.data(), block.size(), headerP, dataP, &consumed);
}

int InitSharedDisks(const NodeList& nodes, const DiskList& disks, const PaxosDblockSummary& dblock,
                    int nSlots, uint64_t clusterId) {
  qcrLog(4, "InitSharedDisks: nSlots %d diskIdList %s", nSlots, diskIds(disks).c_str());
  qcrLog(4, "InitSharedDisks: for nodes %s", nodeListToString(nodes).c_str());
  PaxosFileData data;
  data.epoch = 1;
  data.dblk = dblock;
  int first = 0;
  for (const DiskEntry& disk : disks) {
    int rc = 0;
    for (int slot = 0; slot < nSlots && rc == 0; ++slot) {
      rc = writeDiskBlock(disk.label, slot, data, StateFileOwner{clusterId, -1});
    }
    if (rc != 0 && first == 0) first = rc;
  }
  return first;
}

}  // namespace qcr
