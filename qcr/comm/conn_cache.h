// The cache of idle outgoing connections, and the hand-back of a used connection.
//
// Caching is off unless switched on; then every used connection is simply closed.
// With caching on, a used connection is handed back with an end-of-records
// exchange: it sends "eor" and must receive "eor" back, else it is bad. Bad
// connections are never cached. The cache is safe to use from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "basic/net.h"
#include "qcr/comm/connection.h"

namespace qcr {

class CachedConnectionMap final {
 public:
  struct Counters {
    int added = 0;
    int deletedBad = 0;
    int hits = 0;
    int misses = 0;
  };

  // kind names the cache in traces ("out" for outgoing connections).
  explicit CachedConnectionMap(std::string kind) : kind_(std::move(kind)) {}

  // Takes the connection for address out of the cache, its first-send flag set:
  // 0, or 112 (kErrCacheMiss) with *connP empty.
  [[nodiscard]] int getConnection(const PeerAddress& address, std::unique_ptr<Connection>* connP);
  // Keeps conn, replacing (and closing) one cached for the same address; a bad
  // conn is closed instead.
  void addConnection(std::unique_ptr<Connection> conn);
  size_t size() const;
  Counters counters() const;
  // Closes every cached connection.
  void clear();

 private:
  const std::string kind_;
  mutable std::mutex mutex_;
  std::map<PeerAddress, std::unique_ptr<Connection>> map_;
  Counters counters_;
};

// The process's cache of outgoing connections.
CachedConnectionMap& outgoingConnections();

void setConnectionCaching(bool on);
bool connectionCachingEnabled();

// Gives a used connection back: cached after a good end-of-records exchange when
// caching is on, closed otherwise.
void releaseConnection(std::unique_ptr<Connection> conn);

}  // namespace qcr
