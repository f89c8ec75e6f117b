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

namespace {

constexpr int64_t kCopyBytes = kDiskBlockBytes / 2;

int64_t copyOffset(int slot, int copy) { return slot * kDiskBlockBytes + copy * kCopyBytes; }

// Reads one copy of a block from file, whose size is size. 0; ENOENT when it was
// never written; 214 when it is damaged; the I/O error.
int readCopy(File& file, int64_t size, int slot, int copy, PaxosFileHeader* headerP,
             PaxosFileData* dataP) {
  const int64_t offset = copyOffset(slot, copy);
  if (size <= offset) return ENOENT;  // the disk was never written this far
  const int64_t avail = std::min(kCopyBytes, size - offset);
  // The image's own length (a big-endian word behind magic and CRC) says how much
  // to read: a reader that polls the disks reads a few kilobytes, not the block.
  uint8_t fixed[kPaxosFixedHeaderSize] = {};
  if (avail < kPaxosFixedHeaderSize) return E_CORRUPT_STATE;
  int rc = file.readAllAt(fixed, sizeof fixed, offset);
  if (rc != 0) return rc;
  if (std::all_of(std::begin(fixed), std::end(fixed), [](uint8_t b) { return b == 0; })) {
    return ENOENT;
  }
  const int64_t len = (int64_t{fixed[8]} << 24) | (int64_t{fixed[9]} << 16) |
                      (int64_t{fixed[10]} << 8) | int64_t{fixed[11]};
  if (len < kPaxosFixedHeaderSize || len > avail) return E_CORRUPT_STATE;
  std::vector<uint8_t> image(static_cast<size_t>(len));
  rc = file.readAllAt(image.data(), image.size(), offset);
  if (rc != 0) return rc;
  size_t consumed = 0;
  return parseStateBuffer(image.data(), image.size(), headerP, dataP, &consumed);
}

// One writer's images only move forward: its seq, its promise and its acceptance
// never go back, so the greater of two intact copies is the later write.
bool laterThan(const PaxosFileData& a, const PaxosFileData& b) {
  const PaxosDblockSummary& x = a.dblk;
  const PaxosDblockSummary& y = b.dblk;
  if (x.seq != y.seq) return x.seq > y.seq;
  if (x.mbal != y.mbal) return y.mbal < x.mbal;
  return y.bal < x.bal;
}

// The block as its last complete write left it: the later intact copy. *copyP
// gets which copy that is. A first write cut short reads as never written (the
// other copy was never written either); ENOENT; 214 when no copy is intact.
int readBlock(File& file, int slot, PaxosFileHeader* headerP, PaxosFileData* dataP, int* copyP) {
  int64_t size = 0;
  int rc = file.size(&size);
  if (rc != 0) return rc;
  PaxosFileHeader header[2];
  PaxosFileData data[2];
  const int rc0 = readCopy(file, size, slot, 0, &header[0], &data[0]);
  const int rc1 = readCopy(file, size, slot, 1, &header[1], &data[1]);
  for (int r : {rc0, rc1}) {
    if (r != 0 && r != ENOENT && r != E_CORRUPT_STATE) return r;
  }
  int copy = -1;
  if (rc0 == 0 && rc1 == 0) {
    copy = laterThan(data[1], data[0]) ? 1 : 0;
  } else if (rc0 == 0 || rc1 == 0) {
    copy = rc0 == 0 ? 0 : 1;
  } else if (rc1 == ENOENT) {
    return ENOENT;  // nothing, or a first write that never completed
  } else {
    return E_CORRUPT_STATE;
  }
  *headerP = header[copy];
  *dataP = std::move(data[copy]);
  *copyP = copy;
  return 0;
}

}  // namespace

int writeDiskBlock(const std::string& path, int slot, const PaxosFileData& data,
                   const StateFileOwner& owner, bool create) {
  if (!create) {
    if (const int rc = checkDiskFile(path); rc != 0) return rc;
  }
  const std::vector<uint8_t> image = encodeStateFile(data, owner.clusterId, owner.nodeId);
  if (static_cast<int64_t>(image.size()) > kCopyBytes) return E2BIG;
  File file;
  int rc = openBlock(&file, path, slot);
  // The copy that does not hold the block's latest intact image: a write cut
  // short then leaves the previous image readable.
  int copy = 0;
  if (rc == 0) {
    PaxosFileHeader header;
    PaxosFileData latest;
    int newest = -1;
    rc = readBlock(file, slot, &header, &latest, &newest);
    if (rc == ENOENT || rc == E_CORRUPT_STATE) rc = 0;
    copy = newest == 0 ? 1 : 0;
  }
  if (rc == 0) rc = file.writeAllAt(image.data(), image.size(), copyOffset(slot, copy));
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
  const int rc = file.openRead(path);
  if (rc != 0) return rc;
  int copy = 0;
  return readBlock(file, slot, headerP, dataP, &copy);
}

namespace {

// Makes block slot read as never written (both copies' headers zero), so that an
// older disk's images do not outlive a new start.
int clearDiskBlock(const std::string& path, int slot) {
  File file;
  int rc = openBlock(&file, path, slot);
  const uint8_t zero[kPaxosFixedHeaderSize] = {};
  for (int copy = 0; copy < 2 && rc == 0; ++copy) {
    rc = file.writeAllAt(zero, sizeof zero, copyOffset(slot, copy));
  }
  const int closed = file.close();
  return rc != 0 ? rc : closed;
}

}  // namespace

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
      rc = clearDiskBlock(disk.label, slot);
      if (rc == 0) rc = writeDiskBlock(disk.label, slot, data, StateFileOwner{clusterId, -1});
    }
    if (rc != 0 && first == 0) first = rc;
  }
  return first;
}

}  // namespace qcr
