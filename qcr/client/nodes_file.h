// Keeping the local node list file (qcr.nodes) in step with the committed one.
#pragma once

#include "qcr/data/committed_state.h"

namespace qcr {

// Makes sure the committed directory holds the version of qcr.nodes that state
// names; when it does not, pulls the committed node list from the servers (in
// the client's order), keeps it in the committed directory, makes it the
// session's node list and rewrites the local node list file. Failures are logged
// and leave the local files as they were: the request that brought state has
// succeeded regardless. A state without a committed node list changes nothing.
void checkLocalNodesFile(const CommittedState& state);

}  // namespace qcr
