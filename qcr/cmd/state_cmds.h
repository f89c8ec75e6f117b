// The steps of patchpaxos that change a loaded state: reconciling its committed
// file list with a committed directory, and raising epoch and sequence number to
// what its update history shows. Each appends its report lines to *outP and
// returns what it changed.
#pragma once

#include <string>
#include <vector>

#include "qcr/data/committed_dir.h"
#include "qcr/data/state_file.h"

namespace qcr {

struct PatchCounts {
  int matching = 0, deleted = 0, added = 0, updated = 0, reverted = 0, reset = 0;
  int changes() const { return added + updated + reverted + reset; }
};

// Compares the newest version of each object id in dirFiles with the state's file
// list and brings the list in line with the directory. Older versions of an id
// only have to be older (asserted). A matching entry with another checksum is a
// broken store and aborts.
PatchCounts patchFileList(std::vector<CommittedFile> dirFiles, CommittedState* stateP,
                          std::string* outP);

// Raises the file's epoch and the dblock's sequence number to the largest seen in
// the update history. Returns the number of values raised (0 to 2).
int raiseToUpdateHistory(PaxosFileData* dataP, std::string* outP);

}  // namespace qcr
