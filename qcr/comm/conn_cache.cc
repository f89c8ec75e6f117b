#include "qcr/comm/conn_cache.h"

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"

namespace qcr {

int CachedConnectionMap::getConnection(const PeerAddress& address,
                                       std::unique_ptr<ConnImplementation>* connP) {
  const std::string text = addressText(address);
  std::lock_guard<std::mutex> lock(mutex_);
  auto iter = map_.find(address);
  if (iter == map_.end()) {
    qcrLog(7, "No cached %s-connection found for address: %s (%d)", kind_.c_str(), text.c_str(),
           static_cast<int>(map_.size()));
    ++counters_.misses;
    return kErrCacheMiss;
  }
  *connP = std::move(iter->second);
  map_.erase(iter);
  (*connP)->setFirstSend(true);
  qcrLog(6, "Returning cached %s-connection 0x%llx for address: %s-%d (%d)", kind_.c_str(),
         (*connP)->id(), text.c_str(), (*connP)->getSocket(), static_cast<int>(map_.size()));
  ++counters_.hits;
  return 0;
}

void CachedConnectionMap::addConnection(std::unique_ptr<ConnImplementation> conn) {
  ConnImplementation* const connP = conn.get();
  const std::string text = addressText(connP->peerAddress());
  qcrLog(6, "CachedConnectionMap::addConnection(): (0x%llx-%s-%d)", connP->id(), text.c_str(),
         connP->getSocket());
  std::lock_guard<std::mutex> lock(mutex_);
  if (connP->isBad()) {
    qcrLog(4, "Bad %s-connection (%d-0x%llx), delete it.", kind_.c_str(), connP->getSocket(),
           connP->id());
    ++counters_.deletedBad;
    return;
  }
  auto iter = map_.find(connP->peerAddress());
  if (iter != map_.end()) {
    QCR_CHECK(iter->second.get() != connP);
    map_.erase(iter);
  }
  map_.emplace(connP->peerAddress(), std::move(conn));
  ++counters_.added;
  qcrLog(6, "Cached %s-connection (0x%llx-%s-%d) cache size: %d", kind_.c_str(), connP->id(),
         text.c_str(), connP->getSocket(), static_cast<int>(map_.size()));
}

size_t CachedConnectionMap::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return map_.size();
}

CachedConnectionMap::Counters CachedConnectionMap::counters() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return counters_;
}

void CachedConnectionMap::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  map_.clear();
}

void releaseConnection(std::unique_ptr<ConnImplementation> conn, CachedConnectionMap* cache) {
  if (!conn || cache == nullptr) return;
  const std::string text = addressText(conn->peerAddress());
  if (!conn->isBad()) {
    const int rc = conn->send(MSG_TYPE_EOR, nullptr, 0);
    qcrLog(4, "Send EOR (%d) to %s (%d)", MSG_TYPE_EOR, text.c_str(), rc);
  }
  if (!conn->isBad()) {
    int type = -1;
    std::unique_ptr<uint8_t[]> data;
    int len = 0;
    const int rc = conn->receive(&type, &data, &len);
    if (rc != 0 || type != MSG_TYPE_EOR) conn->markBad();
    qcrLog(4, "Received EOR (%d) from %s (%d)", type, text.c_str(), rc);
  }
  cache->addConnection(std::move(conn));
}

}  // namespace qcr
