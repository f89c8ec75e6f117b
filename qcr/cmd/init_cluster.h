// Making a set of fresh qcrd servers one repository, the way `vyqcr init` does
// (`qcrd --init-cluster`): the init message (makeInitRequest) to every server,
// then the node list committed as the file "qcr.nodes" and the disk list as
// "qcr.disks", all through one Client that keeps no files.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/data/node_list.h"

namespace qcr {

// nodes name the servers (address and port each); clusterId must not be 0.
// Prints one line per step on standard output. 0, or the first error (with its
// line on standard error).
[[nodiscard]] int InitCluster(const NodeList& nodes, uint64_t clusterId);

}  // namespace qcr
