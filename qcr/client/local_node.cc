#include "qcr/client/local_node.h"

#include <algorithm>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/comm/connect.h"

namespace qcr {

int localAddresses(const std::vector<IpAddress16>** addressesP) {
  static std::vector<IpAddress16> addresses;
  static bool fetched = false;
  *addressesP = nullptr;
  if (!fetched) {
    const int rc = localInterfaceAddresses(&addresses);
    if (rc != 0) return rc;
    fetched = true;
  }
  *addressesP = &addresses;
  return 0;
}

int localAddressesFor(const Session& session, const std::vector<IpAddress16>** addressesP) {
  static const std::vector<IpAddress16> none;
  const bool candidate =
      std::any_of(session.nodeList.begin(), session.nodeList.end(),
                  [&session](const NodeEntry& node) { return node.port == session.serverPort; });
  if (candidate) return localAddresses(addressesP);
  *addressesP = &none;
  return 0;
}

int settleLocalNode(const std::vector<IpAddress16>& localAddrs, Session* sessionP) {
  Session& s = *sessionP;
  s.nodeAddrById.clear();
  s.nodeIdByAddr.clear();
  // Named as in the assertion texts that report a machine listed twice.
  int32_t& qcrNodeId = s.localNodeId;
  std::string& qcrAddr = s.localNodeAddr;
  qcrNodeId = -1;
  qcrAddr.clear();
  for (auto iter = s.nodeList.begin(); iter != s.nodeList.end(); ++iter) {
    PeerAddress address;
    const int rc = resolve(iter->addr, iter->port, &address);
    if (rc != 0) {
      qcrLog(1, "Cannot resolve node %d address '%s' (err %d)", iter->id, iter->addr.c_str(), rc);
      return rc;
    }
    s.nodeAddrById[iter->id] = address;
    s.nodeIdByAddr[address] = iter->id;
    const bool onThisMachine =
        std::find(localAddrs.begin(), localAddrs.end(), address.ip) != localAddrs.end();
    const bool local = onThisMachine && iter->port == s.serverPort;
    if (!local) continue;
    if (qcrNodeId == -1) {
      qcrNodeId = iter->id;
      qcrAddr = iter->addr;
      qcrLog(4, "qcrNodeId: %d", qcrNodeId);
    }
    QCR_ASSERT(qcrNodeId == iter->id);
    QCR_ASSERT(qcrAddr == iter->addr);
  }
  return 0;
}

}  // namespace qcr
