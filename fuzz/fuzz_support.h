// Shared pieces of the fuzz targets: a quiet log, a cursor over the input that
// hands out its bytes piece by piece, and the round-trip checks.
//
// Every target reads bytes that could come from another machine or from disk.
// What it must never do is crash, read outside its input or hang; a value that
// parses must also be written back and parse again to an equal value, so that
// the reader and the writer never disagree. A failed check aborts through
// QCR_ASSERT, which libFuzzer reports as a crash with the input that caused it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "basic/assert.h"
#include "basic/log.h"

namespace qcr::fuzz {

using Bytes = std::vector<uint8_t>;

// Silences qcrLog: parsers log what they reject, and millions of lines would
// drown libFuzzer's own report.
inline void quietLog() {
  verbosity = -1;
  traceLevel = -1;
}

// A target's own set-up, run once before the first input (after quietLog); a
// target that needs none does not define it.
void setUp();

// The input, consumed from the front.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

  bool empty() const { return p_ == end_; }
  size_t size() const { return static_cast<size_t>(end_ - p_); }
  const uint8_t* data() const { return p_; }
  const uint8_t* end() const { return end_; }

  // One byte (0 once the input is used up).
  uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
  // Up to n bytes.
  Bytes take(size_t n) {
    n = n < size() ? n : size();
    Bytes b(p_, p_ + n);
    p_ += n;
    return b;
  }
  // Everything left.
  Bytes rest() { return take(size()); }
  std::string restText() {
    const Bytes b = rest();
    return std::string(b.begin(), b.end());
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// The bytes of v through its members getSize and write; the byte count must
// equal getSize().
template <typename T>
Bytes encodeMembers(const T& v) {
  Bytes b(static_cast<size_t>(v.getSize()));
  QCR_ASSERT(v.write(b.data()) == b.data() + b.size());
  return b;
}

// v was read from some bytes: its encoding must read back, exactly to the end,
// into an equal value, whose encoding is the same bytes again. The reader is
// called on a heap copy of exactly the encoded size so ASan sees any overread.
template <typename T, typename Read>
void checkRoundTrip(const T& v, Read read) {
  const Bytes bytes = encodeMembers(v);
  const Bytes copy = bytes;
  T back;
  QCR_ASSERT(read(copy.data(), copy.data() + copy.size(), &back) == copy.data() + copy.size());
  QCR_ASSERT(back == v);
  QCR_ASSERT(encodeMembers(back) == bytes);
}

// The same for a type written and read by free functions: size(v), put(buffer,
// v) and get(cursor, end, out).
template <typename T, typename Size, typename Put, typename Get>
void checkFreeRoundTrip(const T& v, Size size, Put put, Get get) {
  Bytes bytes(static_cast<size_t>(size(v)));
  QCR_ASSERT(put(bytes.data(), v) == bytes.data() + bytes.size());
  T back;
  QCR_ASSERT(get(bytes.data(), bytes.data() + bytes.size(), &back) == bytes.data() + bytes.size());
  QCR_ASSERT(back == v);
}

template <typename T>
void checkMemberRoundTrip(const T& v) {
  checkRoundTrip(v, [](const uint8_t* p, const uint8_t* end, T* out) { return out->read(p, end); });
}

}  // namespace qcr::fuzz
