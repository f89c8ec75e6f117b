// Making a set of fresh qcrd servers one repository (`qcrd --init-cluster`): the
// steps of `vyqcr init` (initRepository) run through one Client that keeps no
// files, for tools and tests that have no client base directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/data/node_list.h"

namespace qcr {

// nodes name the servers (address and port each); clusterId must not be 0.
// diskPaths, when given, are the tiebreaker disk files (ids 1, 2, ... in order),
// written fresh before any server is initialised; minQuorum is the fewest quorum
// nodes a change needs alongside a majority of them. keysDir, when given, holds
// the key files (keyFilePaths) that authenticate the client to secured servers.
// Prints a line on standard output once done. 0, or the first error (with its
// line on standard error).
[[nodiscard]] int InitCluster(const NodeList& nodes, uint64_t clusterId,
                              const std::vector<std::string>& diskPaths = {}, int minQuorum = 1,
                              const std::string& keysDir = "");

}  // namespace qcr
