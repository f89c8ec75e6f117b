#include "qcr/data/crc.h"

#include <array>

namespace qcr {

namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7u;

constexpr std::array<uint32_t, 256> makeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i << 24;
    for (int bit = 0; bit < 8; ++bit) c = (c & 0x80000000u) ? (c << 1) ^ kPolynomial : c << 1;
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = makeTable();

}  // namespace

uint32_t crcExtend(uint32_t crc, const void* data, size_t n) {
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < n; ++i) crc = kTable[(crc >> 24) ^ p[i]] ^ (crc << 8);
  return crc;
}

uint32_t cksumFinish(uint32_t crc, uint64_t length) {
  for (; length != 0; length >>= 8) {
    const uint8_t byte = static_cast<uint8_t>(length & 0xFF);
    crc = crcExtend(crc, &byte, 1);
  }
  return ~crc;
}

}  // namespace qcr
