// Tiebreaker disks. A disk is one file that every server of the cluster can open
// (a path in a shared directory, or on a shared file system). It holds one disk
// block per Paxos slot: block i starts at i * kDiskBlockBytes and is written only
// by the node that holds slot i, while every node reads all of them. A block
// holds two copies, each in its half: a state file image (header with cluster
// id, length and writer, then the PaxosFileData). Writes go to the copy that does
// not hold the latest intact image, so a write cut short leaves the previous one
// readable; a reader takes the later intact copy (a writer's seq, promise and
// acceptance only move forward). A copy whose header is all zero bytes was never
// written.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/data/dblock.h"
#include "qcr/data/node_list.h"
#include "qcr/data/state_file.h"

namespace qcr {

inline constexpr int64_t kDiskBlockBytes = int64_t{1} << 20;
inline constexpr int kDiskFileMode = 0660;

// Writes data as block slot of the disk at path and forces it to the disk. The
// image must fit half a block. The
// disk is created when missing only with create: a synod must never write into a
// fresh empty file where a disk with the other nodes' blocks was (ENOENT then).
// 0; E2BIG when the image does not fit half a block; the I/O error.
[[nodiscard]] int writeDiskBlock(const std::string& path, int slot, const PaxosFileData& data,
                                 const StateFileOwner& owner, bool create = true);

// Whether path is a disk in place: 0 for a regular file (not through a symbolic
// link), ENOENT when nothing is there, EINVAL or ELOOP for anything else.
[[nodiscard]] int checkDiskFile(const std::string& path);

// Reads block slot of the disk at path: its latest intact copy. 0 with *headerP
// and *dataP; ENOENT when the block was never written (or only its first write
// began); 214 when no copy is intact; the I/O error (ENOENT also for a missing
// disk).
[[nodiscard]] int readDiskBlock(const std::string& path, int slot, PaxosFileHeader* headerP,
                                PaxosFileData* dataP);

// Writes the initial state (dblock, epoch 1) into blocks 0 .. nSlots - 1 of each
// disk of disks, created or overwritten, for cluster clusterId; nodes are the
// quorum nodes that will use them (traced). 0, or the first error (the other
// disks are still written).
[[nodiscard]] int InitSharedDisks(const NodeList& nodes, const DiskList& disks,
                                  const PaxosDblockSummary& dblock, int nSlots, uint64_t clusterId);

}  // namespace qcr
