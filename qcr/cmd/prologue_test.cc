#include "qcr/cmd/prologue.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "basic/files.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

// Forcing a new base directory removes that directory and nothing else, whatever
// its path holds: a shell would split the first at its blank (removing "keep" and
// "victim" beside it) and stumble over the quote of the second.
TEST(Prologue, ANewBaseReplacesOnlyTheOldOne) {
  const test::ScopedTempDir dir;
  ASSERT_EQ(makeDirectory(dir.file("keep"), 0755), 0);
  ASSERT_EQ(writeFile(dir.file("keep/file"), "kept", 0644, false), 0);
  ASSERT_EQ(writeFile(dir.file("victim"), "kept", 0644, false), 0);
  for (const std::string& base : {dir.file("keep " + dir.path() + "/victim"), dir.file("it's")}) {
    ASSERT_TRUE(std::filesystem::create_directories(base + "/committed")) << base;
    ASSERT_EQ(writeFile(base + "/old", "", 0644, false), 0);
    ASSERT_EQ(setenv("QCR_BASE", base.c_str(), 1), 0);
    Session session;
    EXPECT_EQ(clientIoInit(&session, 0, kCreateNew + 1, true), 0) << base;
    unsetenv("QCR_BASE");
    EXPECT_EQ(session.paths.base, base);
    EXPECT_FALSE(fileExists(base + "/old")) << base;
    EXPECT_TRUE(isDirectory(base + "/committed")) << base;
    EXPECT_EQ(test::readFileText(dir.file("keep/file")), "kept") << base;
    EXPECT_EQ(test::readFileText(dir.file("victim")), "kept") << base;
  }
}

}  // namespace
}  // namespace qcr
