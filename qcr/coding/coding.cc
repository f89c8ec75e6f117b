#include "qcr/coding/coding.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "basic/assert.h"

namespace qcr {

namespace {

constexpr uint64_t kVarUIntLimit = 1ULL << 56;

// The stored value: value - base in 64-bit unsigned arithmetic.
uint64_t biased(int64_t value, int32_t base) {
  return static_cast<uint64_t>(value) - static_cast<uint64_t>(static_cast<int64_t>(base));
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int sizeVarUInt(int64_t value, int32_t base) {
  uint64_t r = biased(value, base);
  int n = 1;
  for (uint64_t t = 128; t <= r && n < MaxSizeVarUInt; t <<= 7, ++n) r -= t;
  return n;
}

uint8_t* putVarUInt(uint8_t* p, int64_t value, int32_t base) {
  uint64_t i = biased(value, base);
  QCR_ASSERT((unsigned long long)i < (1ULL << 56));
  if (i < 128) {
    *p++ = static_cast<uint8_t>(i);
    return p;
  }
  int k = 0;
  for (uint64_t t = 128; t <= i; t <<= 7, ++k) i -= t;
  // First byte: k one-bits, a zero bit, then the top bits of the remainder.
  *p++ = static_cast<uint8_t>((i >> (8 * k)) | (0xFF00u >> k));
  for (int shift = 8 * (k - 1); shift >= 0; shift -= 8) *p++ = static_cast<uint8_t>(i >> shift);
  return p;
}

const uint8_t* getVarUInt64(const uint8_t* p, const uint8_t* end, uint64_t* valueP,
                            int32_t base) {
  if (p == nullptr || p >= end) return nullptr;
  const uint8_t first = *p++;
  // The leading one-bits count the extra bytes. Eight of them (0xFF) would make a
  // 9-byte class, which the format does not have.
  const int extra = std::countl_one(first);
  if (extra >= MaxSizeVarUInt || end - p < extra) return nullptr;
  uint64_t raw = first & (0x7Fu >> extra);  // the bits after the prefix and its zero
  uint64_t offset = 0;                      // where this length class starts
  for (int i = 1; i <= extra; ++i) {
    raw = (raw << 8) | *p++;
    offset += uint64_t{1} << (7 * i);
  }
  raw += offset;
  // The longest class reaches past 2^56, but no writer produces such a value.
  if (raw >= kVarUIntLimit) return nullptr;
  *valueP = raw + static_cast<uint64_t>(static_cast<int64_t>(base));
  return p;
}

const uint8_t* getVarInt32(const uint8_t* p, const uint8_t* end, int32_t* valueP,
                           int32_t base) {
  uint64_t raw = 0;
  p = getVarUInt64(p, end, &raw, 0);
  if (p == nullptr || raw >= (1ULL << 31)) {
    *valueP = base;
    return nullptr;
  }
  *valueP = static_cast<int32_t>(static_cast<int64_t>(raw) + base);
  return p;
}

uint8_t* putFlag(uint8_t* p, bool v) { return putByte(p, v ? 1 : 0); }

const uint8_t* getFlag(const uint8_t* p, const uint8_t* end, bool* vP) {
  uint8_t b = 0;
  p = getByte(p, end, &b);
  if (p == nullptr || b > 1) return nullptr;
  *vP = b == 1;
  return p;
}

const uint8_t* getVarInt64(const uint8_t* p, const uint8_t* end, int64_t* valueP,
                           int32_t base) {
  uint64_t raw = 0;
  p = getVarUInt64(p, end, &raw);
  if (p == nullptr) return nullptr;
  *valueP = static_cast<int64_t>(raw) + base;
  return p;
}

const uint8_t* getVarUInt32(const uint8_t* p, const uint8_t* end, uint32_t* valueP) {
  uint64_t raw = 0;
  p = getVarUInt64(p, end, &raw, 0);
  if (p == nullptr || raw > 0xFFFFFFFFULL) return nullptr;
  *valueP = static_cast<uint32_t>(raw);
  return p;
}

const uint8_t* getCount(const uint8_t* p, const uint8_t* end, int32_t* countP,
                        int minElementSize) {
  p = getVarInt32(p, end, countP);
  if (p == nullptr) return nullptr;
  if (static_cast<int64_t>(*countP) * minElementSize > end - p) {
    *countP = 0;
    return nullptr;
  }
  return p;
}

uint8_t* putU32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
  return p + 4;
}

const uint8_t* getU32(const uint8_t* p, const uint8_t* end, uint32_t* vP) {
  if (p == nullptr || p >= end || end - p < 4) return nullptr;
  *vP = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
  return p + 4;
}

uint8_t* putU64(uint8_t* p, uint64_t v) {
  p = putU32(p, static_cast<uint32_t>(v >> 32));
  return putU32(p, static_cast<uint32_t>(v));
}

const uint8_t* getU64(const uint8_t* p, const uint8_t* end, uint64_t* vP) {
  uint32_t hi = 0, lo = 0;
  p = getU32(getU32(p, end, &hi), end, &lo);
  if (p != nullptr) *vP = (uint64_t{hi} << 32) | lo;
  return p;
}

uint8_t* putByte(uint8_t* p, uint8_t v) {
  *p = v;
  return p + 1;
}

const uint8_t* getByte(const uint8_t* p, const uint8_t* end, uint8_t* vP) {
  if (p == nullptr || p >= end) return nullptr;
  *vP = *p;
  return p + 1;
}

int sizeString(std::string_view s) { return static_cast<int>(s.size()) + 1; }

uint8_t* putString(uint8_t* p, std::string_view s) {
  if (!s.empty()) std::memcpy(p, s.data(), s.size());
  p[s.size()] = 0;
  return p + s.size() + 1;
}

const uint8_t* getString(const uint8_t* p, const uint8_t* end, std::string* sP) {
  if (p == nullptr || p >= end) return nullptr;
  const size_t n = strnlen(reinterpret_cast<const char*>(p), static_cast<size_t>(end - p));
  if (p + n >= end) return nullptr;  // no NUL before end
  sP->assign(reinterpret_cast<const char*>(p), n);
  return p + n + 1;
}

int sizeStringArray(const std::vector<std::string>& a) {
  int size = sizeVarUInt(static_cast<int64_t>(a.size()));
  for (const std::string& s : a) size += sizeString(s);
  return size;
}

uint8_t* putStringArray(uint8_t* p, const std::vector<std::string>& a) {
  p = putVarUInt(p, static_cast<int64_t>(a.size()));
  for (const std::string& s : a) p = putString(p, s);
  return p;
}

const uint8_t* getStringArray(const uint8_t* p, const uint8_t* end,
                              std::vector<std::string>* aP) {
  int32_t count = 0;
  p = getCount(p, end, &count, 1);
  aP->clear();
  for (int32_t i = 0; i < count && p != nullptr; ++i) p = getString(p, end, &aP->emplace_back());
  return p;
}

int Uid::getSize() const { return sizeVarUInt(node) + sizeVarUInt(epoch) + sizeVarUInt(seq); }

uint8_t* Uid::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(putVarUInt(p, node), epoch), seq);
}

const uint8_t* Uid::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getVarInt32(getVarInt32(p, end, &node), end, &epoch), end, &seq);
}

std::string Uid::toString() const {
  char buf[64];
  snprintf(buf, sizeof buf, "((n%d,e%d),%d)", node, epoch, seq);
  return buf;
}

std::string uidToString(const Uid& uid) {
  uint8_t buf1[MaxUidBytes];
  uint8_t* bufP = uid.write(buf1);
  QCR_ASSERT(bufP <= buf1 + MaxUidBytes);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * static_cast<size_t>(bufP - buf1));
  for (const uint8_t* p = buf1; p < bufP; ++p) {
    text.push_back(kHex[*p >> 4]);
    text.push_back(kHex[*p & 0xF]);
  }
  return text;
}

int uidFromString(std::string_view text, Uid* uidP) {
  constexpr int kEinval = 22;
  if (text.empty() || text.size() > 2 * MaxUidBytes) return kEinval;
  uint8_t bytes[MaxUidBytes];
  size_t n = 0;
  // Two digits make a byte; an odd final digit is a byte of its own.
  for (size_t i = 0; i < text.size(); i += 2) {
    int value = 0;
    for (size_t j = i; j < i + 2 && j < text.size(); ++j) {
      const int digit = hexDigit(text[j]);
      if (digit < 0) return kEinval;
      value = value * 16 + digit;
    }
    bytes[n++] = static_cast<uint8_t>(value);
  }
  const uint8_t* p = uidP->read(bytes, bytes + n);
  return p == bytes + n ? 0 : kEinval;
}

}  // namespace qcr
