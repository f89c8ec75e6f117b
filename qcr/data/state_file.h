// The Paxos state file: a header (magic, CRC, length, cluster id, format version,
// writer) and the PaxosFileData behind it. The CRC covers everything from the
// length field to the end of the content; a node keeps two copies of the file
// (qcr.paxos.1 and qcr.paxos.2) so that one survives an interrupted write.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/data/dblock.h"

namespace qcr {

inline constexpr uint32_t kPaxosMagic = 0x1FABC4AD;
inline constexpr int kPaxosFmtVersion = 1;
inline constexpr int kPaxosFixedHeaderSize = 20;  // magic, crc, len, cid
inline constexpr int kStateFileMode = 0660;

struct PaxosFileHeader {
  uint32_t magic = kPaxosMagic;
  uint32_t crc = 0;
  uint32_t len = 0;  // bytes of the whole content, header included
  uint64_t cid = 0;
  int32_t fmtVersion = 0;
  int32_t lastWriterId = -1;  // -1: none

  bool operator==(const PaxosFileHeader&) const = default;
  // Fixed words big-endian; fmtVersion VarUInt; lastWriterId VarUInt base -1.
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "magic %08X, crc %08X, len %d, fmtVersion %d cid %llu lastWriterId %d".
  std::string toString() const;
};

// The name of copy 1 or 2 of the state file whose base path is paxosFile.
std::string paxosCopyName(const std::string& paxosFile, int copy);

// The complete file content for data, written by node lastWriterId of cluster cid:
// current format, length and CRC filled in.
std::vector<uint8_t> encodeStateFile(const PaxosFileData& data, uint64_t cid,
                                     int32_t lastWriterId);
// The same with data's committed state given as its encoding (committed.write's
// bytes), which a caller that writes the same state again and again keeps.
std::vector<uint8_t> encodeStateFile(const PaxosFileData& data, uint64_t cid,
                                     int32_t lastWriterId,
                                     const std::vector<uint8_t>& committedBytes);

// Checks the length, magic and CRC of a state file's content of n bytes (bytes
// after the length field's end are ignored). Returns 0 or 214, logging the cause.
[[nodiscard]] int verifyStateBuffer(const uint8_t* buf, size_t n);

// Verifies and parses a state file's content. Returns 0 or 214; *consumedP gets the
// bytes the parse used.
[[nodiscard]] int parseStateBuffer(const uint8_t* buf, size_t n, PaxosFileHeader* headerP,
                                   PaxosFileData* dataP, size_t* consumedP);

// Whose state a file holds: the cluster id and the node that writes it (-1 for a
// machine that is no quorum node); both go into the header of every store.
struct StateFileOwner {
  uint64_t clusterId = 0;
  int32_t nodeId = -1;
};

class PaxosLocalFile {
 public:
  // Writes the current header (owner's cluster id and node id) and data to path,
  // created or truncated. Not atomic: a failed store may leave a partial file,
  // which the next load rejects.
  [[nodiscard]] int storeToFile(const std::string& path, const StateFileOwner& owner);
  // Reads, verifies and parses path into header, data and fileSize. With
  // clusterIdP, a file whose non-zero cluster id differs from a known *clusterIdP
  // is rejected (214), and while *clusterIdP is 0 the file's id is adopted into
  // it; without, the cluster id is not checked.
  [[nodiscard]] int loadFromFile(const std::string& path, uint64_t* clusterIdP = nullptr);
  // The readable dump: "<path> (size n):", the hdr, pfd and dblk lines and the
  // committed state.
  std::string dump(const std::string& path) const;

  PaxosFileHeader header;
  PaxosFileData data;
  int64_t fileSize = 0;
};

// What loading both copies of a node's state file found.
struct StateCopies {
  bool exists[2] = {false, false};  // copy 1, copy 2
  int rc[2] = {0, 0};               // their load results
  int chosen = 0;                   // the copy handed back (1 or 2), 0 for none
  // "" when a copy loaded, else "Both paxos files do not exist" or (when at least
  // one exists) "Both paxos files corrupt".
  std::string finding;
};

// Loads paxosFile.1 and paxosFile.2 and hands back the one with the higher dblock
// sequence number (copy 1 on a tie). Returns 0, or when neither loads ENOENT if
// neither exists and 214 otherwise.
// clusterIdP as for loadFromFile.
[[nodiscard]] int loadStateCopies(const std::string& paxosFile, uint64_t* clusterIdP,
                                  PaxosLocalFile* fileP, StateCopies* copiesP);

// Stores data to targetPath when one is given; otherwise to a temporary file that
// then replaces statePath, so a failed store never touches the state file in use;
// the directory is forced to disk after the rename.
[[nodiscard]] int storeWithReplacement(const PaxosFileData& data, const StateFileOwner& owner,
                                       const std::string& statePath,
                                       const std::string& targetPath = "");

}  // namespace qcr
