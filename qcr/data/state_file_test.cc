#include "qcr/data/state_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/crc.h"
#include "qcr/data/file_ops.h"
#include "testing/random_values.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

using Bytes = std::vector<uint8_t>;

class StateFileTest : public ::testing::Test {
 protected:
  void SetUp() override { data_ = test::RandomValues(5).fileData(); }
  std::string path(const std::string& name) const { return dir_.file(name); }

  static std::string asText(const Bytes& b) { return std::string(b.begin(), b.end()); }
  int loadBytes(const Bytes& b, PaxosLocalFile* fileP) {
    EXPECT_EQ(writeFile(path("f"), asText(b), 0600, false), 0);
    return fileP->loadFromFile(path("f"), &knownCid_);
  }

  test::ScopedTempDir dir_;
  PaxosFileData data_;
  const StateFileOwner owner_{0, 3};
  uint64_t knownCid_ = 0;
};

TEST_F(StateFileTest, StoreThenLoadGivesTheSameData) {
  PaxosLocalFile out;
  out.data = data_;
  ASSERT_EQ(out.storeToFile(path("qcr.paxos.1"), {0x0102030405060708ULL, 3}), 0);
  PaxosLocalFile in;
  ASSERT_EQ(in.loadFromFile(path("qcr.paxos.1")), 0);
  EXPECT_TRUE(in.data == data_);
  EXPECT_EQ(in.header, out.header);
  EXPECT_EQ(in.header.lastWriterId, 3);
  EXPECT_EQ(in.header.cid, 0x0102030405060708ULL);
  EXPECT_EQ(in.fileSize, static_cast<int64_t>(in.header.len));
  // A missing file or directory gives the system's error.
  EXPECT_EQ(in.loadFromFile(path("absent")), 2);
  EXPECT_EQ(out.storeToFile(path("no/such/dir"), owner_), 2);
}

// The content made from a kept encoding of the committed state is the content
// made from the state itself, for states of every shape.
TEST_F(StateFileTest, AKeptEncodingOfTheCommittedStateGivesTheSameFile) {
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    const PaxosFileData data = test::RandomValues(seed).fileData();
    Bytes committed(static_cast<size_t>(data.dblk.committed.getSize()));
    data.dblk.committed.write(committed.data());
    EXPECT_EQ(encodeStateFile(data, 77, 2, committed), encodeStateFile(data, 77, 2)) << seed;
  }
}

TEST_F(StateFileTest, DamagedFilesAreRejectedWithTheirCause) {
  const Bytes good = encodeStateFile(data_, 0, 3);
  const struct {
    const char* what;
    size_t flipAt;  // SIZE_MAX: no flip
    int sizeChange;
    int rc;
    const char* log;
  } cases[] = {
      {"intact", SIZE_MAX, 0, 0, ""},
      {"extra bytes after len", SIZE_MAX, 3, 0, ""},
      {"one byte short", SIZE_MAX, -1, 214, "Bad Paxos data length: have"},
      {"only 11 bytes", SIZE_MAX, 11 - static_cast<int>(good.size()), 214,
       "Bad Paxos data length: have 11 need 0"},
      {"empty", SIZE_MAX, -static_cast<int>(good.size()), 214, "Bad Paxos data length"},
      {"magic", 0, 0, 214, "Bad Paxos magic 9FABC4AD"},
      {"crc field", 5, 0, 214, "Bad Paxos CRC"},
      {"len field", 11, 0, 214, "Bad Paxos"},
      {"cid", 14, 0, 214, "Bad Paxos CRC"},
      {"data", good.size() - 1, 0, 214, "Bad Paxos CRC"},
  };
  const int savedVerbosity = verbosity;
  verbosity = 3;
  for (const auto& c : cases) {
    Bytes b = good;
    if (c.flipAt != SIZE_MAX) b[c.flipAt] ^= 0x80;
    b.resize(static_cast<size_t>(static_cast<int>(b.size()) + c.sizeChange), 0);
    PaxosLocalFile in;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(loadBytes(b, &in), c.rc) << c.what;
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(c.log), std::string::npos) << c.what;
    EXPECT_TRUE(c.rc != 0 || in.data == data_) << c.what;
  }
  verbosity = savedVerbosity;
}

TEST_F(StateFileTest, VersionZeroFileHasNoSlotAssignmentVersion) {
  data_.slotAssignmentVersion = 0;
  Bytes full = encodeStateFile(data_, 0, -1);
  // Rebuild it as a version-0 file: fmtVersion 0 and the field left out.
  PaxosFileHeader header;
  ASSERT_NE(header.read(full.data(), full.data() + full.size()), nullptr);
  const size_t dataAt = static_cast<size_t>(header.getSize());
  EXPECT_EQ(full[20], 1);     // fmtVersion
  EXPECT_EQ(full[21], 0x00);  // lastWriterId -1
  header.fmtVersion = 0;
  header.len -= 1;
  Bytes old(header.len);
  uint8_t* p = header.write(old.data());
  p = putVarUInt(p, data_.epoch);
  std::copy(full.begin() + static_cast<long>(dataAt + sizeVarUInt(data_.epoch) + 1), full.end(), p);
  putU32(old.data() + 4, crcExtend(0, old.data() + 8, old.size() - 8));
  PaxosLocalFile in;
  ASSERT_EQ(loadBytes(old, &in), 0);
  EXPECT_EQ(in.header.fmtVersion, 0);
  EXPECT_TRUE(in.data == data_);
}

TEST_F(StateFileTest, ClusterIdIsAdoptedOnceAndThenEnforced) {
  PaxosLocalFile in;
  EXPECT_EQ(loadBytes(encodeStateFile(data_, 77, 1), &in), 0);
  EXPECT_EQ(knownCid_, 77u);
  EXPECT_EQ(loadBytes(encodeStateFile(data_, 0, 1), &in), 0);
  EXPECT_EQ(loadBytes(encodeStateFile(data_, 78, 1), &in), 214);
  EXPECT_EQ(knownCid_, 77u);
  // A rejected file still teaches an unknown cluster id.
  knownCid_ = 0;
  Bytes bad = encodeStateFile(data_, 99, 1);
  bad.back() ^= 1;
  EXPECT_EQ(loadBytes(bad, &in), 214);
  EXPECT_EQ(knownCid_, 99u);
}

TEST_F(StateFileTest, InterruptedReplacementLeavesThePreviousFileIntact) {
  const std::string state = path("qcr.paxos.1");
  ASSERT_EQ(storeWithReplacement(data_, owner_, state), 0);
  std::vector<std::string> names;
  ASSERT_EQ(listDirectory(dir_.path(), &names), 0);
  EXPECT_EQ(names, std::vector<std::string>{"qcr.paxos.1"});  // no temporary left
  // A store cut short before its rename: a truncated temporary file remains.
  const Bytes next = encodeStateFile(test::RandomValues(6).fileData(), 0, 3);
  ASSERT_EQ(writeFile(tempFileName(state), asText(Bytes(next.begin(), next.begin() + 40)), 0600,
                      false), 0);
  PaxosLocalFile in;
  ASSERT_EQ(in.loadFromFile(state), 0);
  EXPECT_TRUE(in.data == data_);
  // A store that cannot write its temporary file never touches the state file.
  ASSERT_EQ(removeFile(tempFileName(state)), 0);
  ASSERT_EQ(makeDirectory(tempFileName(state), 0700), 0);
  EXPECT_NE(storeWithReplacement(test::RandomValues(6).fileData(), owner_, state), 0);
  ASSERT_EQ(in.loadFromFile(state), 0);
  EXPECT_TRUE(in.data == data_);
  // An explicit target is written directly and leaves the state file alone.
  EXPECT_EQ(storeWithReplacement(test::RandomValues(6).fileData(), owner_, state, path("out")), 0);
  ASSERT_EQ(in.loadFromFile(path("out")), 0);
  EXPECT_FALSE(in.data == data_);
}

TEST_F(StateFileTest, BothCopiesAreTriedAndTheNewerWins) {
  const std::string base = path("qcr.paxos");
  PaxosLocalFile file;
  StateCopies copies;
  EXPECT_EQ(loadStateCopies(base, nullptr, &file, &copies), 2);
  EXPECT_EQ(copies.finding, "Both paxos files do not exist");
  ASSERT_EQ(writeFile(base + ".2", "corrupt", 0600, false), 0);
  EXPECT_EQ(loadStateCopies(base, nullptr, &file, &copies), 214);
  EXPECT_EQ(copies.finding, "Both paxos files corrupt");
  PaxosFileData older = data_;
  older.dblk.seq = data_.dblk.seq - 1;
  ASSERT_EQ(storeWithReplacement(older, owner_, base + ".1"), 0);
  EXPECT_EQ(loadStateCopies(base, nullptr, &file, &copies), 0);
  EXPECT_EQ(copies.chosen, 1);
  EXPECT_EQ(copies.rc[1], 214);
  ASSERT_EQ(storeWithReplacement(data_, owner_, base + ".2"), 0);
  EXPECT_EQ(loadStateCopies(base, nullptr, &file, &copies), 0);
  EXPECT_EQ(copies.chosen, 2);
  EXPECT_TRUE(file.data == data_);
  EXPECT_EQ(copies.finding, "");
}

}  // namespace
}  // namespace qcr
