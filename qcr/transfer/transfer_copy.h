// Copying one local file to a list of nodes: each node gets a file announcement
// (message cp_to) and then the file itself (qcr/data/transfer.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "basic/net.h"
#include "qcr/comm/connect.h"

namespace qcr {

// The body of the cp_to message that announces a file: its name, size,
// permission bits, owner, times and the destination on the receiving node, in
// that order (strings NUL-terminated, numbers VarUInts).
// The destination of a committed file sent to a server that waits for init, so
// that the repository it is about to serve starts with its files.
inline constexpr char kRestoreDestination[] = "committed";

struct FileAnnouncement {
  std::string name;
  int64_t size = 0;
  uint32_t mode = 0;  // permission bits (mode & 0777)
  uint32_t uid = 0;
  uint32_t gid = 0;
  int64_t atime = 0;  // seconds since the epoch
  int64_t mtime = 0;
  std::string destination;

  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  bool operator==(const FileAnnouncement&) const = default;
};

// The announcement of the local file at path, to be stored as destination.
// 22 for a file that is not a regular one, else 0 or the status error.
[[nodiscard]] int announceFile(const std::string& path, const std::string& destination,
                               FileAnnouncement* announcementP);

// Copies the file at path to every node, in order, in up to two passes (each
// node answers ok once it kept the file, or failed with its reason): a pass
// stops at the first node that fails, and the next pass (with the default connect
// time-out instead of 1 s) starts over. The first pass without a failure ends the
// copying. *numSuccessP counts the nodes reached in the last pass. 0, or the
// error of the last failing node. Connections are opened with params (its connect
// time-out replaced as described).
[[nodiscard]] int copyFileToNodes(const std::string& path, const std::string& destination,
                                  const std::vector<PeerAddress>& nodes,
                                  const ConnectParams& params, int* numSuccessP);

}  // namespace qcr
