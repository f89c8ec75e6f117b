// The committed directory: one ordinary file per stored version of a repository
// file, its name carrying the identity (see file_names.h). Reading the directory
// rebuilds the file records of the committed state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/coding/coding.h"

namespace qcr {

// One well-formed committed file name, taken apart.
struct CommittedFile {
  std::string fileName;  // the directory entry
  std::string name;      // repository name
  std::string suffix;    // everything after the first "."
  int32_t objId = 0;
  int32_t version = 0;
  uint32_t crc = 0;
  Uid uid;
};

// Takes a directory entry apart; false (logged at level 4) when it is ill-formed.
bool parseCommittedName(const std::string& fileName, CommittedFile* fileP);

// Whether fileName, as another node names a file, may become a path in the
// committed directory: a well-formed committed name with no "/" and no control
// character, so that it can neither leave the directory nor hide in it.
bool isCommittedFileName(const std::string& fileName);

// Lists dir: one record per well-formed name, in no particular order. Names holding
// ".tmp." (transfers in progress, leftovers) and ill-formed names are skipped.
[[nodiscard]] int readCommittedDir(const std::string& dir, std::vector<CommittedFile>* filesP);

}  // namespace qcr
