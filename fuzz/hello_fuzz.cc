// The hello that opens a connection, both sides: the first byte picks whether
// the input is read as a client's hello (what qcrd reads) or as a server's
// answer (what the tool reads). A hello that reads is built again from what was
// taken from it and must read back to the same fields.
#include <string>

#include "fuzz/fuzz_support.h"
#include "qcr/comm/hello.h"
#include "testing/string_transport.h"

namespace qcr::fuzz {
namespace {

using ReadHello = int (*)(Transport&, int, Hello*);

int readFrom(const Bytes& bytes, ReadHello read, Hello* helloP) {
  test::StringTransport transport(std::string(bytes.begin(), bytes.end()));
  return read(transport, 0, helloP);
}

bool sameSecurity(const Hello& a, const Hello& b) {
  if (a.security.has_value() != b.security.has_value()) return false;
  return !a.security || (a.security->keyGen == b.security->keyGen &&
                         a.security->cipherList == b.security->cipherList);
}

void checkClientHello(const Bytes& bytes) {
  Hello hello;
  if (readFrom(bytes, readClientHello, &hello) != 0) return;
  Hello back;
  QCR_ASSERT(readFrom(buildClientHello(hello), readClientHello, &back) == 0);
  QCR_ASSERT(sameSecurity(back, hello) && back.clusterId == hello.clusterId &&
             back.flags == hello.flags);
}

void checkHelloReply(const Bytes& bytes) {
  Hello reply;
  // A refusal (129) is a well-formed answer too, with its status kept.
  const int rc = readFrom(bytes, readHelloReply, &reply);
  if (rc != 0 && rc != kErrHelloRejected) return;
  QCR_ASSERT((rc == kErrHelloRejected) == (reply.status != 0));
  Hello back;
  QCR_ASSERT(readFrom(buildHelloReply(reply), readHelloReply, &back) == rc);
  QCR_ASSERT(sameSecurity(back, reply) && back.clusterId == reply.clusterId &&
             back.nodeValue == reply.nodeValue && back.status == reply.status);
}

}  // namespace
}  // namespace qcr::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qcr::fuzz::Input in(data, size);
  const bool server = (in.byte() & 1) == 0;
  const qcr::fuzz::Bytes bytes = in.rest();
  if (server) {
    qcr::fuzz::checkClientHello(bytes);
  } else {
    qcr::fuzz::checkHelloReply(bytes);
  }
  return 0;
}
