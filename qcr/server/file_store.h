// A server's committed directory: the stored versions of the repository's files,
// how they arrive (from a client, pushed by the leader, pulled from a peer) and
// how obsolete versions leave.
//
// Thread-safe: the directory is the only shared state, and every name in it fixes
// its content (arrivals use the keep-rename), so concurrent users cannot clash.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/comm/connection.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/committed_state.h"
#include "qcr/server/apply.h"

namespace qcr {

class FileStore final {
 public:
  explicit FileStore(std::string committedDir) : dir_(std::move(committedDir)) {}

  const std::string& dir() const { return dir_; }
  std::string pathOf(const std::string& fileName) const { return dir_ + "/" + fileName; }

  // The stored file of this object id, version and uid: 0, or ENOENT.
  [[nodiscard]] int find(int32_t objId, int32_t version, const Uid& uid, CommittedFile* fileP) const;
  // The names of the state's files that are stored here.
  FileNames namesOf(const CommittedState& state) const;
  // The largest object id stored (0 when none).
  int32_t maxStoredId() const;
  // Files of the state that are not stored here.
  std::vector<std::pair<int32_t, FileRecord>> missing(const CommittedState& state) const;
  // Removes stored versions that the state has replaced or deleted: those whose
  // update the state records as applied but which are not its current version.
  // Versions of updates not yet decided stay.
  void prune(const CommittedState& state) const;

  // Receives a file sent by sendFile as the new version (name, objId, version, uid);
  // its checksum goes into the stored name. 0 with the stored file name and the
  // checksum, or the transfer's error.
  [[nodiscard]] int receive(Connection& conn, const std::string& name, int32_t objId,
                            int32_t version, const Uid& uid, int64_t size,
                            std::string* fileNameP, uint32_t* crcP);
  // Receives a file under a given committed name (a push or a pull).
  [[nodiscard]] int receiveAs(Connection& conn, const std::string& fileName, int64_t size);
  // Sends a stored file; 0 or the error.
  [[nodiscard]] int send(Connection& conn, const std::string& fileName, int64_t* sizeP = nullptr);

 private:
  std::string dir_;
};

}  // namespace qcr
