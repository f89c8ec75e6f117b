// Every body that servers send each other: the synod messages, catch-up, the
// acceptor's answers and the file transfer between servers. The first byte picks
// the type, the rest is the body.
#include <tuple>

#include "fuzz/body_check.h"
#include "qcr/server/peer_bodies.h"

namespace {

using Bodies = std::tuple<qcr::PeerHeader, qcr::PrepareMsg, qcr::AcceptMsg, qcr::SyncMsg,
                          qcr::AcceptorReply, qcr::FileXferMsg, qcr::ErrorBody>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qcr::fuzz::checkBodyFamily<Bodies>(data, size);
  return 0;
}
