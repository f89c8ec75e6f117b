// CRC-32 with the polynomial 0x04C11DB7, most significant bit first, no final
// inversion. State files use the plain value (start 0); file transfer finishes it
// the way the POSIX cksum command does, so the figures agree with `cksum`.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qcr {

// Extends crc over n bytes of data. Extending chunk by chunk equals one pass.
// Uses the fastest implementation the CPU offers for that many bytes; all of
// them give equal values.
uint32_t crcExtend(uint32_t crc, const void* data, size_t n);

// The cksum value of a byte stream whose plain CRC is crc and whose length is
// length: the length is folded in, least significant byte first, then complemented.
uint32_t cksumFinish(uint32_t crc, uint64_t length);

// The individual implementations, for tests and benchmarks. kBytewise is the
// plain one-table loop that the others are checked against. kCarryless folds
// with 128-bit carry-less multiplication, kWideCarryless with 512-bit registers;
// each falls back to the next slower one on a CPU without its instructions.
enum class CrcImpl { kBytewise, kSlicing8, kCarryless, kWideCarryless };
uint32_t crcExtendWith(CrcImpl impl, uint32_t crc, const void* data, size_t n);
bool crcCarrylessAvailable();
bool crcWideCarrylessAvailable();

}  // namespace qcr
