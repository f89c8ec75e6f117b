#include "qcr/coding/crc.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qcr {
namespace {

constexpr CrcImpl kAllImpls[] = {CrcImpl::kBytewise, CrcImpl::kSlicing8, CrcImpl::kCarryless,
                                 CrcImpl::kWideCarryless};

std::vector<uint8_t> randomBytes(std::mt19937& rng, size_t n) {
  std::vector<uint8_t> bytes(n);
  for (auto& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

TEST(Crc, ReferenceVectors) {
  const std::string check = "123456789";
  for (CrcImpl impl : kAllImpls) {
    EXPECT_EQ(crcExtendWith(impl, 0, check.data(), check.size()), 0x89A1897Fu);
  }
  EXPECT_EQ(crcExtend(0, check.data(), check.size()), 0x89A1897Fu);
  EXPECT_EQ(cksumFinish(crcExtend(0, check.data(), check.size()), check.size()), 930766865u);
  EXPECT_EQ(cksumFinish(0, 0), 4294967295u);  // what cksum prints for an empty file
  // What cksum prints for 1 MiB of zero bytes.
  const std::vector<uint8_t> zeros(1 << 20);
  EXPECT_EQ(cksumFinish(crcExtend(0, zeros.data(), zeros.size()), zeros.size()), 3018728591u);
}

// Every implementation agrees with the byte loop for any length, start value and
// alignment; the lengths cross the block and lane boundaries of the fast paths.
TEST(Crc, ImplementationsAgreeWithByteLoop) {
  std::mt19937 rng(12345);
  const std::vector<uint8_t> data = randomBytes(rng, 70000);
  for (int round = 0; round < 3000; ++round) {
    const size_t n = round < 2000 ? rng() % 4097 : rng() % 65000;
    const size_t offset = rng() % 16;
    const uint32_t start = round % 5 == 0 ? 0 : static_cast<uint32_t>(rng());
    const uint32_t expected = crcExtendWith(CrcImpl::kBytewise, start, data.data() + offset, n);
    for (CrcImpl impl : kAllImpls) {
      ASSERT_EQ(crcExtendWith(impl, start, data.data() + offset, n), expected) << n;
    }
  }
}

TEST(Crc, ChunkedEqualsOnePass) {
  std::mt19937 rng(7);
  const std::vector<uint8_t> data = randomBytes(rng, 300000);
  const uint32_t whole = crcExtend(0, data.data(), data.size());
  for (int round = 0; round < 50; ++round) {
    uint32_t c = 0;
    for (size_t pos = 0; pos < data.size();) {
      const size_t n = std::min<size_t>(data.size() - pos, rng() % (round < 25 ? 300 : 40000));
      c = crcExtend(c, data.data() + pos, n);
      pos += n;
    }
    EXPECT_EQ(c, whole) << round;
  }
}

}  // namespace
}  // namespace qcr
