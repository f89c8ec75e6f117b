// The bodies of the repository requests and of their replies: one codec for the
// tool and the server alike, so that the two can never disagree.
//
// Every body type has getSize(), write(p) (p has room for exactly getSize() bytes;
// returns the end) and read(p, end) (returns the advanced cursor or nullptr; see
// coding.h). encodeBody and decodeBody frame a whole body and check its length.
//
// Field conventions: versions travel as VarUInt(version + 1) so that -1 ("none")
// is the byte 00; errors in replies likewise as error + 1; names are their bytes
// and a NUL; "seq" is the committed sequence number; a change request begins with
// the uid, which the tool sends as zero and the server fills in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "basic/assert.h"
#include "qcr/coding/result.h"
#include "qcr/coding/coding.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/dblock.h"
#include "qcr/data/file_names.h"
#include "qcr/data/node_list.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

// ---- requests ----

// vput (6): uid; name; value; newVersion + 1; condVersion + 1.
struct VputRequest {
  Uid uid;
  std::string name;
  std::string value;
  int32_t newVersion = -1;
  int32_t condVersion = -1;

  bool operator==(const VputRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// vdel (7) and fdel (10): uid; name; condVersion + 1.
struct DeleteRequest {
  Uid uid;
  std::string name;
  int32_t condVersion = -1;

  bool operator==(const DeleteRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// fput (9): uid; name; fileSize + 1; newVersion + 1; condVersion + 1; quorumOption.
struct FputRequest {
  Uid uid;
  std::string name;
  int64_t fileSize = -1;
  int32_t newVersion = -1;
  int32_t condVersion = -1;
  int32_t quorumOption = 0;

  bool operator==(const FputRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// fget (8) and fget_priv (32) of one file: name; condVersion + 1; flags (sent 0).
// An fget with an empty body asks for the file list instead.
struct FgetRequest {
  std::string name;
  int32_t condVersion = -1;
  int32_t flags = 0;

  bool operator==(const FgetRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// config (11): uid; the configuration change; configVersion + 1 (the version the
// change was computed from, -1 for any); quorumOption.
struct ConfigRequest {
  Uid uid;
  ConfigChange change;
  int32_t configVersion = -1;
  int32_t quorumOption = 0;

  bool operator==(const ConfigRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// discover (20): the asker's node list version + 1.
struct DiscoverRequest {
  int32_t nlVersion = -1;

  bool operator==(const DiscoverRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// backup (34): one VarUInt, 1 asking for a compressed archive.
struct BackupRequest {
  int32_t compress = 0;

  bool operator==(const BackupRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// init (4): cluster id (two big-endian 32-bit words, high first); node list;
// dblock; configuration.
struct InitRequest {
  uint64_t clusterId = 0;
  NodeList nodes;
  PaxosDblockSummary dblock;
  PaxosConfig config;

  bool operator==(const InitRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// The init message of a new repository, as every way of creating one builds it:
// the dblock at seq 0 with no ballots, no leader and nothing committed but the
// configuration PaxosConfig(nodes, disks, minNodes) at configuration version 1.
InitRequest makeInitRequest(uint64_t clusterId, const NodeList& nodes, const DiskList& disks,
                            int minNodes);

// ---- replies ----

// seq_commit (50): seq; committed state. Also the prefix of several replies below.
struct SeqCommitReply {
  int32_t seq = 0;
  CommittedState state;

  bool operator==(const SeqCommitReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// seq_commit_error (51): error + 1; seq; committed state.
struct SeqCommitErrorReply {
  int32_t error = 0;
  int32_t seq = 0;
  CommittedState state;

  bool operator==(const SeqCommitErrorReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// seq_commit_fget (52): seq; committed state; object id; the byte count of the
// file that follows as fdata messages and one fcrc.
struct SeqCommitFgetReply {
  int32_t seq = 0;
  CommittedState state;
  int32_t fid = 0;
  int64_t fileSize = 0;

  bool operator==(const SeqCommitFgetReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// seq_commit_flist (53): seq; committed state; the names of its files. qcrd hands
// a state over to another server in this same layout (its StateImage).
struct SeqCommitFlistReply {
  int32_t seq = 0;
  CommittedState state;
  FileList files;

  bool operator==(const SeqCommitFlistReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// uid (54): the uid; uid_fput (55): the uid and the needFile byte.
struct UidReply {
  Uid uid;
  bool operator==(const UidReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

struct UidFputReply {
  Uid uid;
  bool needFile = false;

  bool operator==(const UidFputReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// failed_node_ver (61): error + 1; the server's node list version + 1.
struct FailedNodeVerReply {
  int32_t error = 0;
  int32_t nlVersion = -1;

  bool operator==(const FailedNodeVerReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// reply_discover (62): seq; committed state; authoritative byte; the version of
// the committed node list (0 when there is none). The node list file follows,
// announced by a cp_to message and sent as fdata messages and one fcrc.
struct DiscoverReply {
  int32_t seq = 0;
  CommittedState state;
  bool authoritative = false;
  int32_t nlVersion = 0;

  bool operator==(const DiscoverReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// reply_backup (65): whether the archive is compressed; its byte count. The
// archive follows as fdata messages and one fcrc.
struct BackupReply {
  int32_t compressed = 0;
  int64_t archiveSize = 0;

  bool operator==(const BackupReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// seq_commit_query (66): seq; committed state; authoritative byte.
struct SeqCommitQueryReply {
  int32_t seq = 0;
  CommittedState state;
  bool authoritative = false;

  bool operator==(const SeqCommitQueryReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// The body of a status reply (ok): the node's status as its first VarUInt
// (below 2 down, 2 serving, 4 joined).
inline constexpr int kNodeStatusServing = 2;
inline constexpr int kNodeStatusJoined = 4;

// ---- framing helpers ----

// The whole body of T, exactly getSize() bytes (asserted).
template <class T>
std::vector<uint8_t> encodeBody(const T& body) {
  const int len = body.getSize();
  std::vector<uint8_t> msg(static_cast<size_t>(len));
  uint8_t* msgP = msg.data();
  uint8_t* bufP = body.write(msgP);
  QCR_ASSERT(bufP - msgP == len);
  return msg;
}

// Parses a whole body: 0, or 818 (E_ILL_FORMED_MSG) when it is empty, ends early,
// does not parse or leaves bytes over. Every body above has at least one field.
template <class T>
[[nodiscard]] int decodeBody(const uint8_t* data, size_t len, T* bodyP) {
  const uint8_t* end = data + len;
  const uint8_t* p = bodyP->read(data, end);
  return p != nullptr && p == end ? E_OK : E_ILL_FORMED_MSG;
}

}  // namespace qcr
