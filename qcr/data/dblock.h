// The Paxos disk block kept in a state file, and the state file's content behind
// its header.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/data/ballot.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/update.h"

namespace qcr {

class PaxosDblockSummary {
 public:
  bool operator==(const PaxosDblockSummary&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "<seq=.. mbal=.. bal=.. inp=.. chall=.. committed=<state>>".
  std::string toString() const;

  int32_t seq = 0;     // dblock sequence number
  Ballot mbal;         // highest ballot promised
  Ballot bal;          // ballot of the last accepted input
  ProposedUpdate inp;  // last accepted input
  int32_t leaderChallengeVersion = 0;
  CommittedState committed;
};

class PaxosFileData {
 public:
  bool operator==(const PaxosFileData&) const = default;
  // Always the current form (with slotAssignmentVersion).
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  // fmtVersion 0 files carry no slotAssignmentVersion; it then reads as 0.
  const uint8_t* read(const uint8_t* p, const uint8_t* end, int fmtVersion);
  std::string toString() const;

  int32_t epoch = 0;
  int32_t slotAssignmentVersion = 0;
  PaxosDblockSummary dblk;
};

}  // namespace qcr
