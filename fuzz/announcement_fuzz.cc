// The cp_to body that announces a file: it must decode, encode and decode again
// to an equal value, and its size and times must be values a file can have.
#include "fuzz/fuzz_support.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  const fuzz::Bytes body(data, data + size);  // exactly sized, for ASan
  FileAnnouncement a;
  if (decodeBody(body.data(), body.size(), &a) != E_OK) return 0;
  QCR_ASSERT(a.size >= 0 && a.size <= kMaxTransferSize);
  QCR_ASSERT(a.atime >= 0 && a.mtime >= 0);
  const fuzz::Bytes encoded = encodeBody(a);
  FileAnnouncement back;
  QCR_ASSERT(decodeBody(encoded.data(), encoded.size(), &back) == E_OK && back == a);
  QCR_ASSERT(encoded == body);  // every field has one encoding
  return 0;
}
