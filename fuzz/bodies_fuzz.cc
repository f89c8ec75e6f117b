// Every request and reply body: the first byte picks the type, the rest is the
// body. A body that decodes is encoded again and must decode to an equal value
// with the same bytes.
#include <cstddef>
#include <tuple>

#include "fuzz/fuzz_support.h"
#include "qcr/comm/request_bodies.h"

namespace qcr::fuzz {
namespace {

using Bodies = std::tuple<VputRequest, DeleteRequest, FputRequest, FgetRequest, ConfigRequest,
                          DiscoverRequest, BackupRequest, InitRequest, SeqCommitReply,
                          SeqCommitErrorReply, SeqCommitFgetReply, SeqCommitFlistReply, UidReply,
                          UidFputReply, FailedNodeVerReply, DiscoverReply, BackupReply,
                          SeqCommitQueryReply>;

template <typename T>
void checkBody(const Bytes& bytes) {
  T body;
  if (decodeBody(bytes.data(), bytes.size(), &body) != E_OK) return;
  const Bytes encoded = encodeBody(body);
  T back;
  QCR_ASSERT(decodeBody(encoded.data(), encoded.size(), &back) == E_OK);
  QCR_ASSERT(back == body);
  QCR_ASSERT(encodeBody(back) == encoded);
}

template <size_t... I>
void checkBodyOfType(size_t type, const Bytes& bytes, std::index_sequence<I...>) {
  ((type == I ? checkBody<std::tuple_element_t<I, Bodies>>(bytes) : void()), ...);
}

}  // namespace
}  // namespace qcr::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr::fuzz;
  constexpr size_t kTypes = std::tuple_size_v<Bodies>;
  Input in(data, size);
  const size_t type = in.byte() % kTypes;
  // An exactly-sized heap copy, so that ASan sees any read past the body.
  const Bytes body = in.rest();
  checkBodyOfType(type, body, std::make_index_sequence<kTypes>{});
  return 0;
}
