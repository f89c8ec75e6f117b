#include "qcr/coding/coding.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace qcr {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes putVar(int64_t value, int32_t base = 0) {
  Bytes b(MaxSizeVarUInt);
  b.resize(static_cast<size_t>(putVarUInt(b.data(), value, base) - b.data()));
  return b;
}

// The first and last form of every length class, from hand-made bytes: each
// class meets the next without gap or overlap, every form reads back whole, and
// every proper prefix of it is a truncation that fails.
TEST(VarUInt, GoldenBytesAtClassBoundaries) {
  const Bytes ff(7, 0xFF), zero(7, 0x00);
  const auto form = [](uint8_t first, const Bytes& rest, size_t n) {
    Bytes b = {first};
    b.insert(b.end(), rest.begin(), rest.begin() + static_cast<ptrdiff_t>(n));
    return b;
  };
  const struct {
    int64_t value;
    Bytes bytes;
  } cases[] = {
      {0, {0x00}},
      {127, {0x7F}},
      {128, {0x80, 0x00}},
      {16511, {0xBF, 0xFF}},
      {16512, {0xC0, 0x00, 0x00}},
      {2113663, {0xDF, 0xFF, 0xFF}},
      {2113664, {0xE0, 0x00, 0x00, 0x00}},
      {270549119, form(0xEF, ff, 3)},
      {270549120, form(0xF0, zero, 4)},
      {34630287487, form(0xF7, ff, 4)},
      {34630287488, form(0xF8, zero, 5)},
      {4432676798591, form(0xFB, ff, 5)},
      {4432676798592, form(0xFC, zero, 6)},
      {567382630219903, form(0xFD, ff, 6)},
      {567382630219904, form(0xFE, zero, 7)},
      {(1LL << 56) - 1, {0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x7F}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(putVar(c.value), c.bytes) << c.value;
    EXPECT_EQ(sizeVarUInt(c.value), static_cast<int>(c.bytes.size())) << c.value;
    const uint8_t* p = c.bytes.data();
    uint64_t back = 0;
    EXPECT_EQ(getVarUInt64(p, p + c.bytes.size(), &back), p + c.bytes.size()) << c.value;
    EXPECT_EQ(back, static_cast<uint64_t>(c.value));
    for (size_t n = 0; n < c.bytes.size(); ++n) {
      EXPECT_EQ(getVarUInt64(p, p + n, &back), nullptr) << c.value << " cut to " << n;
    }
  }
}

// Forms outside 1 to 8 bytes or above 2^56 - 1 fail every reader; so does every
// prefix of them.
TEST(VarUInt, ReadersRefuseWhatNoWriterProduces) {
  const Bytes largest = {0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x7F};  // 2^56 - 1
  const Bytes rejected[] = {
      {0xFF, 0, 0, 0, 0, 0, 0, 0},                           // first byte 0xFF, 8 bytes
      {0xFF, 0, 0, 0, 0, 0, 0, 0, 0},                        // ... a 9-byte form
      {0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0},                  // ... a 10-byte form
      {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
      {0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x80},      // 2^56
      {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},      // the largest 8-byte form
  };
  uint64_t u64 = 0;
  int64_t s64 = 0;
  int32_t s32 = 0;
  uint32_t u32 = 0;
  for (const Bytes& b : rejected) {
    for (size_t n = 0; n <= b.size(); ++n) {
      const uint8_t* end = b.data() + n;
      EXPECT_EQ(getVarUInt64(b.data(), end, &u64), nullptr) << n;
      EXPECT_EQ(getVarInt64(b.data(), end, &s64, -1), nullptr) << n;
      EXPECT_EQ(getVarInt32(b.data(), end, &s32), nullptr) << n;
      EXPECT_EQ(getVarUInt32(b.data(), end, &u32), nullptr) << n;
    }
  }
  // Trailing bytes are not part of a VarUInt: the read stops after 8.
  Bytes longer = largest;
  longer.push_back(0xFF);
  EXPECT_EQ(getVarUInt64(longer.data(), longer.data() + longer.size(), &u64),
            longer.data() + largest.size());
  EXPECT_EQ(u64, (uint64_t{1} << 56) - 1);
  EXPECT_EQ(getVarInt64(longer.data(), longer.data() + longer.size(), &s64, -1),
            longer.data() + largest.size());
  EXPECT_EQ(s64, (int64_t{1} << 56) - 2);
}

TEST(VarUInt, BaseMinusOneStoresNoneAsZero) {
  EXPECT_EQ(putVar(-1, -1), Bytes{0x00});
  EXPECT_EQ(putVar(126, -1), Bytes{0x7F});
  int32_t v = 0;
  const Bytes zero{0x00};
  EXPECT_EQ(getVarInt32(zero.data(), zero.data() + 1, &v, -1), zero.data() + 1);
  EXPECT_EQ(v, -1);
}

TEST(VarUInt, WritingOutOfRangeAborts) {
  uint8_t buf[MaxSizeVarUInt];
  EXPECT_DEATH(putVarUInt(buf, 1LL << 56), "assertion '\\(unsigned long long\\)i < \\(1ULL << 56\\)'");
  EXPECT_DEATH(putVarUInt(buf, -1), "1ULL << 56");
}

TEST(VarUInt, ThirtyTwoBitReadsCheckTheirRange) {
  int32_t s = 7;
  uint32_t u = 7;
  const Bytes max31 = putVar(INT32_MAX), over31 = putVar(1LL << 31);
  const Bytes max32 = putVar(UINT32_MAX), over32 = putVar(1LL << 32);
  EXPECT_NE(getVarInt32(max31.data(), max31.data() + max31.size(), &s), nullptr);
  EXPECT_EQ(s, INT32_MAX);
  EXPECT_EQ(getVarInt32(over31.data(), over31.data() + over31.size(), &s, -1), nullptr);
  EXPECT_EQ(s, -1);  // a failed signed read leaves its base
  EXPECT_NE(getVarUInt32(max32.data(), max32.data() + max32.size(), &u), nullptr);
  EXPECT_EQ(u, UINT32_MAX);
  EXPECT_EQ(getVarUInt32(over32.data(), over32.data() + over32.size(), &u), nullptr);
  EXPECT_EQ(getVarInt32(nullptr, max31.data(), &s), nullptr);
}

TEST(FixedWords, BigEndianAndBoundsChecked) {
  uint8_t buf[12];
  putU64(putU32(buf, 0x01020304u), 0x05060708090A0B0CULL);
  EXPECT_EQ(Bytes(buf, buf + 12), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  uint32_t w = 0;
  uint64_t d = 0;
  EXPECT_EQ(getU64(getU32(buf, buf + 12, &w), buf + 12, &d), buf + 12);
  EXPECT_EQ(w, 0x01020304u);
  EXPECT_EQ(d, 0x05060708090A0B0CULL);
  EXPECT_EQ(getU32(buf, buf + 3, &w), nullptr);
  EXPECT_EQ(getU64(buf, buf + 7, &d), nullptr);
}

TEST(Strings, NulTerminatedAndRejectedWithoutNul) {
  const std::vector<std::string> words = {"", "ab", "c"};
  Bytes b(static_cast<size_t>(sizeStringArray(words)));
  EXPECT_EQ(putStringArray(b.data(), words), b.data() + b.size());
  EXPECT_EQ(b, (Bytes{3, 0, 'a', 'b', 0, 'c', 0}));
  std::vector<std::string> back;
  EXPECT_EQ(getStringArray(b.data(), b.data() + b.size(), &back), b.data() + b.size());
  EXPECT_EQ(back, words);
  std::string s;
  // "ab" with its NUL cut off: the bytes are fine but the string never ends.
  EXPECT_EQ(getString(b.data() + 2, b.data() + 4, &s), nullptr);
  // A count that the remaining bytes cannot back fails before any allocation.
  const Bytes huge = {0xDF, 0xFF, 0xFF, 'a', 0};
  EXPECT_EQ(getStringArray(huge.data(), huge.data() + huge.size(), &back), nullptr);
}

TEST(Uid, TextForms) {
  const struct {
    const char* text;
    int rc;
    Uid uid;
  } cases[] = {
      {"000000", 0, {0, 0, 0}},
      {"00000", 0, {0, 0, 0}},  // the odd final digit is a byte of its own
      {"0a0b0c", 0, {10, 11, 12}},
      {"0A0B0C", 0, {10, 11, 12}},
      {"800080ff02", 0, {128, 383, 2}},
      {"", 22, {}},
      {"00000g", 22, {}},
      {"0000", 22, {}},      // two VarUInts only
      {"00000000", 22, {}},  // a trailing byte after the third
      {"00000000000000000000000000000000000000000000000000", 22, {}},  // 50 digits
  };
  for (const auto& c : cases) {
    Uid uid;
    ASSERT_EQ(uidFromString(c.text, &uid), c.rc) << c.text;
    if (c.rc == 0) {
      EXPECT_EQ(uid, c.uid) << c.text;
    }
  }
  EXPECT_EQ(uidToString({10, 11, 12}), "0a0b0c");
  EXPECT_EQ(uidToString({128, 383, 2}), "800080ff02");
  EXPECT_EQ((Uid{1, 2, 3}.toString()), "((n1,e2),3)");
  const Uid widest{INT32_MAX, INT32_MAX, INT32_MAX};
  Uid back;
  EXPECT_EQ(uidFromString(uidToString(widest), &back), 0);
  EXPECT_EQ(back, widest);
}

}  // namespace
}  // namespace qcr
