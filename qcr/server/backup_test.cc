#include "qcr/server/backup_archive.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "basic/files.h"
#include "basic/process.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_ops.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

std::string archiveListing(const std::string& archive) {
  CapturedRun run;
  EXPECT_EQ(runCaptured({"/bin/tar", "-tf", archive}, environmentEntries(), 30000, &run), 0);
  return run.out;
}

// The archive lies in the base directory, whose path is the operator's: quotes,
// blanks and ";" in it, or in a member's name, only name files. A shell would
// have run "touch <dir>/X" from this base path.
TEST(Backup, ArchivePathsReachTarUnparsed) {
  const test::ScopedTempDir dir;
  const std::string base = dir.file("b';touch " + dir.path() + "/X;'");
  ASSERT_TRUE(std::filesystem::create_directories(base + "/committed"));
  const std::string member = "committed/it's a;name.16.1.0.0";
  ASSERT_EQ(writeFile(base + "/qcr.nodes", "1,0,127.0.0.1,1191,a\n", 0644, false), 0);
  ASSERT_EQ(writeFile(base + "/" + member, "content", 0644, false), 0);
  const std::string archive = tempFileName(base + "/qcr-backup.tar");
  // A link left at the archive's name is replaced, not written through.
  ASSERT_EQ(writeFile(dir.file("outside"), "precious", 0644, false), 0);
  ASSERT_EQ(makeSymlink(dir.file("outside"), archive), 0);
  for (bool compress : {false, true}) {
    if (compress && !fileExists("/bin/gzip")) continue;
    ASSERT_EQ(writeArchive(archive, base, {"qcr.nodes", member}, compress), 0) << compress;
    EXPECT_EQ(archiveListing(archive), "qcr.nodes\n" + member + "\n") << compress;
  }
  EXPECT_FALSE(fileExists(dir.file("X")));
  EXPECT_EQ(test::readFileText(dir.file("outside")), "precious");
  EXPECT_EQ(writeArchive(archive, base, {"missing"}, false), E_IO);
}

}  // namespace
}  // namespace qcr
