// Which entry of the node list names this machine. A machine is a quorum node
// when one of its interface addresses and the server port match a node entry;
// otherwise it is a pure client (local node id -1).
#pragma once

#include <vector>

#include "basic/interfaces.h"
#include "qcr/client/session.h"

namespace qcr {

// The machine's interface addresses, fetched from the platform the first time in
// the process and kept. 0 or the platform's error (then *addressesP is null).
[[nodiscard]] int localAddresses(const std::vector<IpAddress16>** addressesP);

// The addresses settleLocalNode needs for sessionP's node list: those of
// localAddresses when an entry uses the server port, else none without asking the
// platform, since no entry on another port can name this machine. 0 or the
// platform's error (then *addressesP is null).
[[nodiscard]] int localAddressesFor(const Session& session,
                                    const std::vector<IpAddress16>** addressesP);

// Resolves every entry of sessionP->nodeList in file order, refills the two
// lookup tables beside it, and sets localNodeId and localNodeAddr to the entry
// whose address is one of localAddrs on sessionP->serverPort (-1 and "" when
// none). Two entries that both name this machine on that port stop the program:
// a node list must name each machine once. 0, or the first lookup error, which
// ends the walk.
[[nodiscard]] int settleLocalNode(const std::vector<IpAddress16>& localAddrs, Session* sessionP);

}  // namespace qcr
