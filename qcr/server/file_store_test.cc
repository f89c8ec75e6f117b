#include "qcr/server/file_store.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "basic/files.h"
#include "qcr/coding/crc.h"
#include "qcr/coding/result.h"
#include "qcr/comm/framing.h"
#include "qcr/data/file_names.h"
#include "qcr/transfer/transfer.h"
#include "testing/run_program.h"
#include "testing/string_transport.h"

namespace qcr {
namespace {

// Which stored versions stay when the directory is brought in line with a state:
// current versions and versions of undecided updates stay; replaced and deleted
// ones go.
TEST(FileStore, PruneKeepsCurrentAndUndecidedVersions) {
  const test::ScopedTempDir dir;
  FileStore store(dir.path());
  CommittedState state;
  state.files[16] = {3, Uid{1, 1, 30}, 0xaa};
  state.addUpdate(Uid{1, 1, 30});  // also covers the older uids of node 1, epoch 1
  struct Stored {
    const char* name;
    int32_t objId, version;
    Uid uid;
    bool stays;
  };
  const Stored files[] = {
      {"a.conf", 16, 3, {1, 1, 30}, true},   // current
      {"a.conf", 16, 2, {1, 1, 20}, false},  // replaced
      {"b", 17, 1, {1, 1, 10}, false},       // deleted since
      {"a.conf", 16, 4, {1, 1, 31}, true},   // an upload not decided yet
      {"c", 18, 1, {2, 5, 40}, true},        // another server's undecided upload
  };
  for (const Stored& f : files) {
    ASSERT_EQ(writeFile(store.pathOf(committedFileName(f.name, f.objId, f.version, 0xaa, f.uid)), "x",
                        0644, false), 0);
  }
  const std::vector<CommittedFile> before = store.list();
  EXPECT_EQ(before.size(), std::size(files));
  EXPECT_EQ(store.maxStoredId(), 18);
  EXPECT_EQ(FileStore::namesOf(state, before), (FileNames{{16, "a.conf"}}));
  EXPECT_TRUE(FileStore::missing(state, before).empty());
  store.prune(state, before);
  const std::vector<CommittedFile> after = store.list();
  for (const Stored& f : files) {
    const bool present = std::any_of(after.begin(), after.end(), [&](const CommittedFile& c) {
      return c.objId == f.objId && c.version == f.version && c.uid == f.uid;
    });
    EXPECT_EQ(present, f.stays) << f.name << " v" << f.version;
  }
  state.files[19] = {1, Uid{3, 1, 50}, 0xbb};
  const auto missing = FileStore::missing(state, after);
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0].first, 19);
}

// Uploads wait under names that no listing takes, and a restart clears them away.
TEST(FileStore, LeftOverUploadsAreNeverListedAndGoAtStart) {
  const test::ScopedTempDir dir;
  FileStore store(dir.path());
  const std::string upload = store.uploadPath(Uid{1, 2, 3});
  ASSERT_EQ(writeFile(upload, "half a file", 0644, false), 0);
  ASSERT_EQ(writeFile(dir.file("keep"), "not ours", 0644, false), 0);
  EXPECT_TRUE(store.list().empty());
  store.removeLeftoverUploads();
  EXPECT_FALSE(fileExists(upload));
  EXPECT_TRUE(fileExists(dir.file("keep")));
}

// A pushed file's name comes from the message: only a well-formed committed name
// becomes a path. Anything else is refused before a byte of the file is read, so
// nothing can land outside the committed directory.
TEST(FileStore, PushedNamesThatAreNoCommittedNamesAreRefusedUnread) {
  const test::ScopedTempDir dir;
  ASSERT_EQ(makeDirectory(dir.file("committed"), 0755), 0);
  FileStore store(dir.file("committed"));
  const std::string good = "a%2Econf.16.4.deadbeef.030242";
  for (const std::string name : {"../escape.16.4.deadbeef.030242", "../../tmp/PWNED",
                                 "sub/a.16.4.deadbeef.030242", "a\nb.16.4.deadbeef.030242",
                                 "PWNED", "", ".", ".."}) {
    test::StringTransport* transport = nullptr;
    auto conn = test::makeStringConnection(&transport);
    EXPECT_EQ(store.receiveAs(*conn, name, 10), EINVAL) << name;
    EXPECT_TRUE(conn->isBad()) << name;
  }
  // A good name goes on to read the (here missing) file.
  test::StringTransport* transport = nullptr;
  auto conn = test::makeStringConnection(&transport);
  EXPECT_NE(store.receiveAs(*conn, good, 10), EINVAL);
  std::vector<std::string> left;
  ASSERT_EQ(listDirectory(dir.path(), &left), 0);
  EXPECT_EQ(left, std::vector<std::string>{"committed"});
}

uint32_t cksumOf(const std::string& content) {
  return cksumFinish(crcExtend(0, content.data(), content.size()), content.size());
}

// A copy whose content no longer has the checksum in its name is never served:
// finding it for serving removes it, and neither a send nor a pull hands it on
// marked good.
TEST(FileStore, DamagedCopiesAreRemovedNotServed) {
  const test::ScopedTempDir dir;
  FileStore store(dir.path());
  const Uid uid{1, 1, 7};
  const std::string content = "the committed content\n";
  const std::string name = committedFileName("f", 16, 2, cksumOf(content), uid);
  ASSERT_EQ(writeFile(store.pathOf(name), content, 0644, false), 0);
  CommittedFile f;
  ASSERT_EQ(store.findIntact(16, 2, uid, &f), 0);
  EXPECT_EQ(f.fileName, name);
  EXPECT_EQ(store.findIntact(16, 3, uid, &f), ENOENT);

  std::string damaged = content;
  damaged[3] ^= 1;
  ASSERT_EQ(writeFile(store.pathOf(name), damaged, 0644, false), 0);
  test::StringTransport* transport = nullptr;
  auto conn = test::makeStringConnection(&transport);
  EXPECT_EQ(store.send(*conn, name), E_IO);
  EXPECT_EQ(transport->sent().size(), kRpcHeaderSize + content.size());  // no fcrc
  EXPECT_EQ(store.findIntact(16, 2, uid, &f), E_IO);
  EXPECT_FALSE(fileExists(store.pathOf(name)));
  EXPECT_EQ(store.findIntact(16, 2, uid, &f), ENOENT);

  // A peer that sends its damaged copy with a checksum to match is refused too.
  conn = test::makeStringConnection(&transport);
  EXPECT_EQ(store.send(*conn, name), ENOENT);
  ASSERT_EQ(writeFile(dir.file("damaged"), damaged, 0644, false), 0);
  bool local = false;
  ASSERT_EQ(sendFile(*conn, dir.file("damaged"), static_cast<int64_t>(damaged.size()), &local), 0);
  const std::string stream = transport->sent();
  auto from = test::makeStringConnection(&transport, stream);
  EXPECT_EQ(store.receiveAs(*from, name, static_cast<int64_t>(damaged.size())), E_IO);
  EXPECT_FALSE(fileExists(store.pathOf(name)));
}

}  // namespace
}  // namespace qcr
