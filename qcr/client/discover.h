// The discover request: learning the node list and the state from the servers,
// for a machine whose local node list may be out of date.
#pragma once

namespace qcr {

// Asks the servers (in the client's order) for their state and node list and
// installs the node list as the session's and the local file. An answer that the
// server could not prove current makes the client start over with the new node
// list (a bounded number of times); a current one is kept as the cached state.
// When this machine is a quorum node of the list and the answer was current, the
// local server is asked whether it is ready (logged only). 0 or the error.
[[nodiscard]] int DISCOVER();

}  // namespace qcr
