// Connection authentication on the client's side: its security start-up, and
// the distribution of key files to the quorum nodes that turns authentication
// on (auth) or rolls it to a new key generation (refresh).
//
// A node takes key files through the auth request. A node that is secured takes
// them only over an authenticated connection: the client then proves its key
// with a ping first. A key change runs in three walks over the nodes, each
// completed before the next begins, so that at no moment does one side announce
// a generation the other does not know:
//   1. committed G, new N: every node learns N and still announces G;
//   2. committed N, new G: nodes announce N and still know G;
//   3. committed N alone: G is refused from then on.
// Between walks the client waits a moment, so that commands that loaded the
// previous files end before the files they may meet move on. An interrupted
// change is found in the local files and completed by the next refresh.
#pragma once

#include <string>

#include "qcr/client/client.h"
#include "qcr/comm/security.h"
#include "qcr/data/node_list.h"

namespace qcr {

inline constexpr double kRefreshSettleSeconds = 1.0;

// Client security start-up as the command prologue runs it (client flag set):
// loads the key files of the client's base directory into client.security().
// 0 or the error (nothing printed beyond the load's own messages).
[[nodiscard]] int ClientSecurityInit(Client& client);

// A fresh key record of generation 1 for cluster clusterId: the files' texts.
// 0, or the error of making the key (721 without the TLS provider).
[[nodiscard]] int CreateClusterKeys(uint64_t clusterId, KeyFiles* filesP);

// Sends files to the server of node nodeId. 0, the server's refusal or the
// connection's error.
[[nodiscard]] int InstallKeys(Client& client, int nodeId, const KeyFiles& files);

// Authentication initialisation for a node list: the client's own key files
// (created as generation 1 when it has none, and its security switched on), then
// installed on every node of nodes in turn; a node that fails is reported with
// "authentication refresh for node %d (%s) failed (err %d)\n" and the walk goes
// on. Returns 0 or the last error; *numSuccessP the number of nodes that took
// the keys. A client without files: 22.
[[nodiscard]] int AuthInit(Client& client, const NodeList& nodes, int* numSuccessP);

// Rolls the cluster's keys to a new generation in the three walks above (from
// where an interrupted one stopped). A walk with a failed node ends the change
// after it: running refresh again completes it. 0 or the last error;
// *numSuccessP the nodes that took the last walk's files. 720 when the client
// has no keys.
[[nodiscard]] int AuthRefresh(Client& client, const NodeList& nodes, int* numSuccessP);

}  // namespace qcr
