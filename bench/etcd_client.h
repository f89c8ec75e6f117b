// The few etcd requests the benchmark makes, through etcd's JSON gateway over
// HTTP/1.1, one new connection per request (as the QCR tool connects anew for
// every request).
#pragma once

#include <string>

#include "basic/net.h"

namespace qcr::bench {

// Puts key = value through the member at address: 0 or an error.
[[nodiscard]] int etcdPut(const PeerAddress& address, const std::string& key, const std::string& value);
// Reads key linearizably through the member at address: 0 or an error.
[[nodiscard]] int etcdGet(const PeerAddress& address, const std::string& key, std::string* jsonP);

}  // namespace qcr::bench
