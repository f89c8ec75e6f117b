// The two copies of a server's state file, qcr.paxos.1 and qcr.paxos.2.
//
// Every store goes to the copy that does not hold the latest state and is forced
// to disk before store returns, so a write cut short at any byte damages only the
// copy being written and the other still holds everything ever acknowledged. At
// start-up load picks the newer of the copies that pass their checks.
//
// Not thread-safe: the owner (the replica) calls it under its lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "basic/overwrite.h"
#include "qcr/data/dblock.h"

namespace qcr {

// The order in which successive stores of one server's state follow each other:
// each component only grows, and every store changes at least one of them.
bool stateIsNewer(const PaxosFileData& a, const PaxosFileData& b);

class StateStore final {
 public:
  // paxosFile is the base path ("<base>/qcr.paxos"); nodeId is written as the
  // last writer.
  StateStore(const std::string& paxosFile, int32_t nodeId);

  // Loads the newer intact copy into *dataP and its cluster id into *cidP. A copy
  // is intact when its length, magic and CRC check and it parses; a copy of another
  // cluster than expectedCid (0: any) counts as damaged. Returns 0, ENOENT when
  // neither copy exists, or 214 when none is intact.
  [[nodiscard]] int load(uint64_t expectedCid, PaxosFileData* dataP, uint64_t* cidP);
  // Writes data for cluster cid to the other copy and forces it to disk.
  // committedBytes, when given, is the encoding of data's committed state.
  [[nodiscard]] int store(const PaxosFileData& data, uint64_t cid,
                          const std::vector<uint8_t>* committedBytes = nullptr);
  // What the last load found in each copy, or why the last failed store failed, in
  // words that name the files ("/b/qcr.paxos.1 is corrupt ...; /b/qcr.paxos.2 does
  // not exist"), for messages at start-up. Empty before either happened.
  const std::string& findings() const { return findings_; }

  void setNodeId(int32_t nodeId) { nodeId_ = nodeId; }
  // Fault injection for tests: store number `store` (counting from 1) writes only
  // the first `bytes` bytes, forced to disk, and then ends the process at once.
  void setCrashPoint(int store, int64_t bytes);
  // Fault injection for tests: while a file exists at flagPath, every store fails
  // with ENOSPC and writes nothing, as on a full disk. Empty: no such fault.
  void setFullDiskFlag(const std::string& flagPath) { fullDiskFlag_ = flagPath; }

 private:
  std::string copies_[2];
  std::unique_ptr<KeptFile> kept_[2];  // the copies, kept open for the next store
  int next_ = 0;  // index of the copy the next store writes
  int32_t nodeId_;
  int stores_ = 0;
  int crashStore_ = 0;
  int64_t crashBytes_ = 0;
  std::string fullDiskFlag_;
  std::string findings_;
};

}  // namespace qcr
