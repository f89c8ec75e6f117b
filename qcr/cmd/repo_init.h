// Making a repository: the steps of `vyqcr init` once its lists are settled, and
// the judgement of partial success when a repository is restored from an archive.
// `qcrd --init-cluster` runs the same steps over a client that keeps no files.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/client/client.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/node_list.h"

namespace qcr {

// What a new repository is made of. With an archive, restoreDir is where it was
// unpacked and restored the committed state it carries (values and file
// records; the list files among its records are made anew from nodes and disks).
struct RepositoryPlan {
  uint64_t clusterId = 0;
  NodeList nodes;
  DiskList disks;
  int32_t minQuorumNodes = 1;
  bool fromArchive = false;
  std::string restoreDir;
  CommittedState restored;
};

// Whether a step that reached successNodes of numOfNodes quorum nodes is good
// enough: it is when a strict majority of the nodes succeeded, or when there are
// tiebreaker disks and at least minNodes nodes succeeded. 0 then (the error is
// waived), else lastErr. Traced either way.
[[nodiscard]] int checkForQuorumAndReset(int numOfNodes, int numOfDisks, int minNodes,
                                         int successNodes, int lastErr);

// The initial state of the repository: the configuration from the lists, and,
// from an archive, its values and the records of its committed files.
PaxosDblockSummary initialRepositoryState(const RepositoryPlan& plan);

// The steps after the lists are known: the initial state, the local node list,
// authentication, the tiebreaker disks, the archive's committed files, the init
// message to every node, and the lists committed last. Each step prints its
// failure on standard error and ends the run with its code; nothing already sent
// is undone. From an archive, a step that reached too few nodes fails only when
// checkForQuorumAndReset says so.
[[nodiscard]] int initRepository(Client& client, const RepositoryPlan& plan);

}  // namespace qcr
