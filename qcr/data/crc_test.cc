#include "qcr/data/crc.h"

#include <string>

#include <gtest/gtest.h>

namespace qcr {
namespace {

TEST(Crc, ReferenceVectors) {
  const std::string check = "123456789";
  EXPECT_EQ(crcExtend(0, check.data(), check.size()), 0x89A1897Fu);
  EXPECT_EQ(cksumFinish(crcExtend(0, check.data(), check.size()), check.size()), 930766865u);
  EXPECT_EQ(cksumFinish(0, 0), 4294967295u);  // what cksum prints for an empty file
}

TEST(Crc, ChunkedEqualsOnePass) {
  std::string data;
  for (int i = 0; i < 1000; ++i) data.push_back(static_cast<char>(i * 7 + 3));
  const uint32_t whole = crcExtend(0, data.data(), data.size());
  for (size_t cut : {0u, 1u, 7u, 500u, 999u, 1000u}) {
    uint32_t c = crcExtend(0, data.data(), cut);
    c = crcExtend(c, data.data() + cut, data.size() - cut);
    EXPECT_EQ(c, whole) << cut;
  }
}

}  // namespace
}  // namespace qcr
