// The Paxos state file as read from disk. The first byte picks whether the input
// is taken as it is, or with its length field and CRC made to match (so that
// mutations reach the parse behind the checks). A file that parses is written
// again by the current writer and must parse to the same data, owner and length.
#include "fuzz/fuzz_support.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"
#include "qcr/data/state_file.h"

namespace {

constexpr size_t kCrcOffset = 4;
constexpr size_t kLenOffset = 8;

// Sets the length field to the whole buffer and the CRC to what it covers.
void fixUp(qcr::fuzz::Bytes* b) {
  if (b->size() < qcr::kPaxosFixedHeaderSize) return;
  qcr::putU32(b->data() + kLenOffset, static_cast<uint32_t>(b->size()));
  qcr::putU32(b->data() + kCrcOffset,
              qcr::crcExtend(0, b->data() + kLenOffset, b->size() - kLenOffset));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  fuzz::Input in(data, size);
  const bool fix = (in.byte() & 1) != 0;
  fuzz::Bytes file = in.rest();
  if (fix) fixUp(&file);
  PaxosFileHeader header;
  PaxosFileData content;
  size_t consumed = 0;
  if (parseStateBuffer(file.data(), file.size(), &header, &content, &consumed) != 0) return 0;
  QCR_ASSERT(consumed >= kPaxosFixedHeaderSize && consumed <= header.len &&
             header.len <= file.size());
  // The renderings of the state-inspection commands take any parsed state.
  (void)header.toString();
  (void)content.dblk.committed.toString();
  (void)content.dblk.committed.dump();

  const std::vector<uint8_t> again = encodeStateFile(content, header.cid, header.lastWriterId);
  PaxosFileHeader header2;
  PaxosFileData content2;
  size_t consumed2 = 0;
  QCR_ASSERT(parseStateBuffer(again.data(), again.size(), &header2, &content2, &consumed2) == 0);
  QCR_ASSERT(consumed2 == again.size() && header2.len == again.size());
  QCR_ASSERT(content2 == content);
  QCR_ASSERT(header2.cid == header.cid && header2.lastWriterId == header.lastWriterId &&
             header2.fmtVersion == kPaxosFmtVersion);
  return 0;
}
