#include "qcr/data/shared_disks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "basic/files.h"
#include "qcr/coding/result.h"
#include "testing/random_values.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

constexpr uint64_t kCluster = 77;

// Each block is its writer's own: writing one leaves the others as they were, a
// block never written reads as such, and a block overwritten by a shorter, later
// image reads as the new one.
TEST(SharedDisks, BlocksAreWrittenAndReadEachInItsPlace) {
  const test::ScopedTempDir dir;
  const std::string disk = dir.file("disk1");
  test::RandomValues random(3);
  PaxosFileData big = random.fileData();
  big.dblk.seq = 7;
  PaxosFileData small;
  small.epoch = 4;
  small.dblk.seq = 8;
  ASSERT_EQ(writeDiskBlock(disk, 5, big, {kCluster, 2}), 0);
  ASSERT_EQ(writeDiskBlock(disk, 1, small, {kCluster, 1}), 0);
  PaxosFileHeader header;
  PaxosFileData got;
  ASSERT_EQ(readDiskBlock(disk, 5, &header, &got), 0);
  EXPECT_EQ(got, big);
  EXPECT_EQ(header.cid, kCluster);
  EXPECT_EQ(header.lastWriterId, 2);
  EXPECT_EQ(readDiskBlock(disk, 0, &header, &got), ENOENT);
  EXPECT_EQ(readDiskBlock(disk, 7, &header, &got), ENOENT);  // past the file's end
  ASSERT_EQ(writeDiskBlock(disk, 5, small, {kCluster, 2}), 0);
  ASSERT_EQ(readDiskBlock(disk, 5, &header, &got), 0);
  EXPECT_EQ(got, small);
  ASSERT_EQ(readDiskBlock(disk, 1, &header, &got), 0);
  EXPECT_EQ(header.lastWriterId, 1);
  EXPECT_EQ(readDiskBlock(disk, 8, &header, &got), EINVAL);
  EXPECT_EQ(readDiskBlock(dir.file("none"), 0, &header, &got), ENOENT);
}

// A write cut short leaves the block as the write before it left it (a first
// write: never written); a block with no intact copy is reported, not read; an
// image larger than half a block is refused before anything is written; a disk
// path that is a symbolic link is not followed.
TEST(SharedDisks, DamageSizeAndLinksAreRefused) {
  const test::ScopedTempDir dir;
  const std::string disk = dir.file("disk");
  auto damage = [&](int64_t offset) {
    File f;
    ASSERT_EQ(f.openReadWrite(disk, 0600), 0);
    const uint8_t junk = 0x5A;
    ASSERT_EQ(f.writeAllAt(&junk, 1, offset), 0);
  };
  PaxosFileData first;
  first.dblk.mbal = {1, 1};
  PaxosFileData second = first;
  second.dblk.bal = {1, 1};
  PaxosFileHeader header;
  PaxosFileData got;
  ASSERT_EQ(writeDiskBlock(disk, 0, first, {kCluster, 1}), 0);
  damage(30);
  EXPECT_EQ(readDiskBlock(disk, 0, &header, &got), ENOENT);
  ASSERT_EQ(writeDiskBlock(disk, 0, first, {kCluster, 1}), 0);
  ASSERT_EQ(writeDiskBlock(disk, 0, second, {kCluster, 1}), 0);
  ASSERT_EQ(readDiskBlock(disk, 0, &header, &got), 0);
  EXPECT_EQ(got, second);
  damage(kDiskBlockBytes / 2 + 30);  // the copy the second write went to
  ASSERT_EQ(readDiskBlock(disk, 0, &header, &got), 0);
  EXPECT_EQ(got, first);
  damage(30);
  EXPECT_EQ(readDiskBlock(disk, 0, &header, &got), E_CORRUPT_STATE);

  PaxosFileData huge;
  huge.dblk.committed.values["big"] = {1, std::string(kDiskBlockBytes / 2, 'x')};
  EXPECT_EQ(writeDiskBlock(disk, 1, huge, {kCluster, 1}), E2BIG);
  EXPECT_EQ(readDiskBlock(disk, 1, &header, &got), ENOENT);

  const std::string target = dir.file("target");
  ASSERT_EQ(writeFile(target, "keep", 0600, false), 0);
  ASSERT_EQ(symlink(target.c_str(), dir.file("link").c_str()), 0);
  EXPECT_EQ(writeDiskBlock(dir.file("link"), 0, first, {kCluster, 1}), ELOOP);
  EXPECT_EQ(test::readFileText(target), "keep");
}

// Every slot of every new disk, or of a disk used before, starts from the given
// state; a disk that cannot be written fails the call without keeping the others
// from being written.
TEST(SharedDisks, InitWritesEverySlotOfEveryDisk) {
  const test::ScopedTempDir dir;
  PaxosDblockSummary dblock;
  dblock.seq = 9;
  const DiskList disks = {{1, 0, dir.file("a")}, {2, 0, dir.file("missing/b")}, {3, 0, dir.file("c")}};
  PaxosFileData earlier;  // an older disk's later-looking image does not outlive the start
  earlier.dblk.seq = 50;
  ASSERT_EQ(writeDiskBlock(dir.file("a"), 0, earlier, {kCluster + 1, 1}), 0);
  EXPECT_EQ(InitSharedDisks({}, disks, dblock, 8, kCluster), ENOENT);
  for (const char* name : {"a", "c"}) {
    for (int slot = 0; slot < 8; ++slot) {
      PaxosFileHeader header;
      PaxosFileData got;
      ASSERT_EQ(readDiskBlock(dir.file(name), slot, &header, &got), 0) << name << slot;
      EXPECT_EQ(got.dblk.seq, 9);
      EXPECT_EQ(got.epoch, 1);
      EXPECT_EQ(header.cid, kCluster);
      EXPECT_EQ(header.lastWriterId, -1);
    }
  }
}

}  // namespace
}  // namespace qcr
