// Where the time of the changes this server handled went, summed per part of a
// change, so that a running server can say how long each part takes on average
// (qcrd --synod-times writes it when the server stops).
//
// On the leader a change passes: decode (the request taken apart, handed to the
// change thread), queue (waiting for the changes before it), lead (the check that
// this server leads under its lease), build (the update made against the committed state), send (a held commit and
// the acceptance request on their way to the followers), leader write (its own
// acceptance on disk), quorum (the rest of the wait for a majority: the followers'
// round trip and writes), apply (the commit in memory and the commit message
// posted) and reply (the answer sent to the client). A follower counts what it
// spends on an acceptance request: decode, write and reply.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace qcr {

enum class SynodPart {
  Decode,
  Queue,
  Lead,
  Build,
  Send,
  LeaderWrite,
  Quorum,
  Apply,
  Reply,
  FollowerAccept,
  Count
};

class SynodTimes final {
 public:
  // Adds seconds to part; any thread.
  void add(SynodPart part, double seconds);
  // "synod times (us, mean over n): decode 3.1 (n) queue ...": parts never seen are left out.
  std::string report() const;

 private:
  static constexpr size_t kParts = static_cast<size_t>(SynodPart::Count);
  std::array<std::atomic<int64_t>, kParts> ns_{};
  std::array<std::atomic<int64_t>, kParts> counts_{};
};

}  // namespace qcr
