// The receive side of a file transfer: the first 8 bytes are the announced size
// (any 64-bit value, as a peer's announcement could give), the next byte the
// receive options, the rest the stream of messages the peer sends. Whatever
// arrives, the receive returns a code: on success exactly the announced bytes
// are stored under the final name, on failure nothing is left in the directory.
#include <cstdlib>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "fuzz/fuzz_support.h"
#include "qcr/coding/coding.h"
#include "qcr/comm/connection.h"
#include "qcr/transfer/transfer.h"
#include "testing/string_transport.h"

namespace {

std::string dir;

std::vector<std::string> entries() {
  std::vector<std::string> names;
  QCR_ASSERT(qcr::listDirectory(dir, &names) == 0);
  return names;
}

}  // namespace

void qcr::fuzz::setUp() {
  // A bad header ends the connection, as it does in qcrd.
  qcr::setMsgCheckAssert(false);
  QCR_ASSERT(qcr::makeTempDir("qcr-transfer-fuzz-", &dir) == 0);
  // Left behind only when the process dies; the name says what it was.
  atexit([] { (void)qcr::removeTree(dir); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  fuzz::Input in(data, size);
  uint64_t announced = 0;
  for (uint8_t b : in.take(8)) announced = announced << 8 | b;
  const uint8_t flags = in.byte();
  ReceiveOptions options;
  options.expectedSize = static_cast<int64_t>(announced);
  options.checksumInName = (flags & 1) != 0;
  options.target = dir + (options.checksumInName ? "/f.0.1" : "/f");
  options.rename = (flags & 2) != 0 ? RenameVariant::kKeep : RenameVariant::kReplace;
  const std::string stream = in.restText();
  test::StringTransport* transport = nullptr;
  auto conn = test::makeStringConnection(&transport, stream);
  uint32_t checksum = 0;
  bool local = false;
  const int rc = receiveFile(*conn, options, &checksum, &local);
  const std::vector<std::string> names = entries();
  if (rc != 0) {
    QCR_ASSERT(names.empty());
    QCR_ASSERT(!local);  // the directory is writable: any failure is the peer's
    QCR_ASSERT(conn->isBad());
    return 0;
  }
  const std::string stored = options.checksumInName ? checksumName(options.target, checksum)
                                                    : options.target;
  QCR_ASSERT(names.size() == 1 && dir + "/" + names[0] == stored);
  int64_t storedSize = -1;
  QCR_ASSERT(fileSize(stored, &storedSize) == 0 && storedSize == options.expectedSize);
  QCR_ASSERT(removeFile(stored) == 0);
  return 0;
}
