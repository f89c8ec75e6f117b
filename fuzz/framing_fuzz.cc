// The message header and a connection's receive over it: the input is the byte
// stream a peer sends. The first header decodes and encodes back to the same
// bytes (the reserved half-word excepted); then messages are received until the
// stream fails, each one within the limits the header promises.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/framing.h"
#include "testing/string_transport.h"

void qcr::fuzz::setUp() {
  // A bad header ends the connection, as it does in qcrd.
  qcr::setMsgCheckAssert(false);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  if (size >= kRpcHeaderSize) {
    const RpcHeader h = decodeRpcHdr(data);
    uint8_t again[kRpcHeaderSize];
    encodeRpcHdr(h, again);
    QCR_ASSERT(memcmp(again, data, 6) == 0 && again[6] == 0 && again[7] == 0);
    QCR_ASSERT(decodeRpcHdr(again).msgLen == h.msgLen && decodeRpcHdr(again).msgType == h.msgType);
  }
  test::StringTransport* transport = nullptr;
  auto conn = test::makeStringConnection(
      &transport, std::string(reinterpret_cast<const char*>(data), size));
  for (int rc = 0; rc == 0;) {
    int type = -1, len = -1;
    std::unique_ptr<uint8_t[]> body;
    rc = conn->receive(&type, &body, &len);
    if (rc == 0) {
      QCR_ASSERT(rpcHdrAcceptable({len, type}));
      QCR_ASSERT((len == 0) == (body == nullptr));
    } else {
      QCR_ASSERT(len == 0 && body == nullptr && conn->isBad());
    }
  }
  return 0;
}
