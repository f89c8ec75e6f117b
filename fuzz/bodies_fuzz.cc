// Every request and reply body between the tool and a server: the first byte
// picks the type, the rest is the body.
#include <tuple>

#include "fuzz/body_check.h"

namespace {

using Bodies = std::tuple<qcr::VputRequest, qcr::DeleteRequest, qcr::FputRequest, qcr::FgetRequest,
                          qcr::ConfigRequest, qcr::DiscoverRequest, qcr::BackupRequest,
                          qcr::InitRequest, qcr::SeqCommitReply, qcr::SeqCommitErrorReply,
                          qcr::SeqCommitFgetReply, qcr::SeqCommitFlistReply, qcr::UidReply,
                          qcr::UidFputReply, qcr::FailedNodeVerReply, qcr::DiscoverReply,
                          qcr::BackupReply, qcr::SeqCommitQueryReply>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qcr::fuzz::checkBodyFamily<Bodies>(data, size);
  return 0;
}
