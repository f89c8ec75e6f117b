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
  // Where a client's upload waits for its change: a name no listing takes for a
  // committed file.
  std::string uploadPath(const Uid& ticket) const;
  // Start-up: removes the uploads a stopped server left behind (their clients
  // were answered with a broken connection long ago).
  void removeLeftoverUploads() const;

  // The well-formed committed files stored now (one directory listing).
  std::vector<CommittedFile> list() const;
  // The stored file of this object id, version and uid: 0, or ENOENT.
  [[nodiscard]] int find(int32_t objId, int32_t version, const Uid& uid, CommittedFile* fileP) const;
  // find, for a file about to be served: its content must still have the checksum
  // its name records. 0; ENOENT when none is stored; E_IO when the stored copy is
  // damaged (or unreadable), which is then removed so that a pull can replace it.
  [[nodiscard]] int findIntact(int32_t objId, int32_t version, const Uid& uid,
                               CommittedFile* fileP) const;
  // The largest object id stored (0 when none).
  int32_t maxStoredId() const;

  // Against one listing: the names of the state's files stored here; the files of
  // the state not stored here; and the removal of versions that the state has
  // replaced or deleted (those whose update it records as applied but which are
  // not its current version; versions of undecided updates stay).
  static FileNames namesOf(const CommittedState& state, const std::vector<CommittedFile>& stored);
  static std::vector<std::pair<int32_t, FileRecord>> missing(
      const CommittedState& state, const std::vector<CommittedFile>& stored);
  void prune(const CommittedState& state, const std::vector<CommittedFile>& stored) const;

  // Receives a file sent by sendFile as the new version (name, objId, version, uid);
  // its checksum goes into the stored name. 0 with the stored file name and the
  // checksum, or the transfer's error.
  [[nodiscard]] int receive(Connection& conn, const std::string& name, int32_t objId,
                            int32_t version, const Uid& uid, int64_t size,
                            std::string* fileNameP, uint32_t* crcP);
  // Receives a file under a given committed name (a push or a pull); content whose
  // checksum is not the one the name records is refused with E_IO.
  [[nodiscard]] int receiveAs(Connection& conn, const std::string& fileName, int64_t size);
  // Sends a stored file, which must still have the checksum its name records (else
  // it fails with E_IO before the fcrc); 0 or the error.
  [[nodiscard]] int send(Connection& conn, const std::string& fileName, int64_t* sizeP = nullptr);

 private:
  std::string dir_;
};

}  // namespace qcr
