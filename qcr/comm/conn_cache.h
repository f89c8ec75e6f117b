// A cache of idle outgoing connections, and the hand-back of a used connection.
//
// Whoever opens connections owns its cache (a Client has one) and names it in the
// connect parameters when caching is on; without a cache every used connection is
// simply closed. A connection handed back to a cache goes through an
// end-of-records exchange: it sends "eor" and must receive "eor" back, else it is
// bad. Bad connections are never cached. A cache is safe to use from any thread.
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
  [[nodiscard]] int getConnection(const PeerAddress& address,
                                  std::unique_ptr<ConnImplementation>* connP);
  // Keeps conn, replacing (and closing) one cached for the same address; a bad
  // conn is closed instead.
  void addConnection(std::unique_ptr<ConnImplementation> conn);
  size_t size() const;
  Counters counters() const;
  // Closes every cached connection.
  void clear();

 private:
  const std::string kind_;
  mutable std::mutex mutex_;
  std::map<PeerAddress, std::unique_ptr<ConnImplementation>> map_;
  Counters counters_;
};

// Gives a used connection back: into cache after a good end-of-records exchange,
// closed when cache is null.
void releaseConnection(std::unique_ptr<ConnImplementation> conn, CachedConnectionMap* cache);

}  // namespace qcr
