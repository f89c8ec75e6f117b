// The committed state of the repository: configuration, leader, the record of
// applied updates, the committed values and the committed files (by object id).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "qcr/coding/coding.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

struct CommittedValue {
  int32_t version = 0;
  std::string text;
  bool operator==(const CommittedValue&) const = default;
};

struct FileRecord {
  int32_t version = 0;
  Uid uid;
  uint32_t crc = 0;
  bool operator==(const FileRecord&) const = default;
};

// "(<objId>,v<version>,<uid hex>,<crc %08x>)".
std::string fileRecordToString(int32_t objId, const FileRecord& record);

class CommittedState {
 public:
  // Recently applied updates: (uid.node, uid.epoch) -> highest applied uid.seq.
  using UpdateKey = std::pair<int32_t, int32_t>;
  static constexpr size_t kMaxUpdateRecords = 20;

  bool operator==(const CommittedState&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  // The bytes write gives, made in one walk over the state rather than the two
  // of getSize and write; a buffer of expectedSize bytes is tried first.
  std::vector<uint8_t> encode(size_t expectedSize) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // The one-line log rendering "<config ver... fdel=...>".
  std::string toString() const;
  // The readable multi-line dump of the state-inspection commands.
  std::string dump() const;
  // "[((n<node>,e<epoch>),<seq>), ...]": each record as the highest uid it stands for.
  std::string updatesToString() const;

  // Whether the update uid is already applied: its (node, epoch) record reaches its
  // seq, or its seq lies at or below the horizon of discarded records.
  bool includes(const Uid& uid) const;
  // Records uid as applied; it must not be included yet. Keeps at most
  // kMaxUpdateRecords records by discarding the one with the smallest seq, which
  // then becomes the horizon.
  void addUpdate(const Uid& uid);

  PaxosConfig config;
  int32_t configVersion = 0;
  int32_t leaderId = -1;  // -1: no leader
  int32_t lease = 0;
  int32_t leaderVersion = 0;
  int32_t horizon = -1;  // seq of the last discarded update record, -1 for none
  std::map<UpdateKey, int32_t> updates;
  std::map<std::string, CommittedValue> values;
  int32_t maxDeletedValueVersion = 0;
  std::map<int32_t, FileRecord> files;  // by object id
  int32_t maxDeletedFileVersion = 0;
};

}  // namespace qcr
