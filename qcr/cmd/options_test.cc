#include "qcr/cmd/options.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "qcr/cmd/driver.h"

namespace qcr {
namespace {

struct Parse {
  int rc;
  CommandLine cmd;
  ProgramSettings settings;
};

Parse parse(std::vector<const char*> argv) {
  Parse p;
  p.rc = parseOptions(static_cast<int>(argv.size()), argv.data(), &p.cmd, &p.settings);
  return p;
}

TEST(Options, ReadNumbersLikeStreamExtraction) {
  struct Case {
    const char* text;
    int32_t value;
  } cases[] = {{"42", 42},       {"  7x", 7},   {"-3", -3},        {"+5", 5},
               {"abc", 0},       {"", 0},       {"0x10", 0},       {"99999999999", INT32_MAX},
               {"-99999999999", INT32_MIN}};
  for (const Case& c : cases) EXPECT_EQ(readInt32(c.text), c.value) << c.text;
  EXPECT_EQ(readUInt64("18446744073709551615"), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(readUInt64(" 12 34"), 12u);
  EXPECT_EQ(readUInt64("id"), 0u);
}

TEST(Options, SplitLists) {
  using V = std::vector<std::string>;
  EXPECT_EQ(splitList("a,,b"), (V{"a", "", "b"}));
  EXPECT_EQ(splitList(",a"), (V{"", "a"}));
  EXPECT_EQ(splitList("a,"), (V{"a"}));
  EXPECT_EQ(splitList(""), V{});
}

TEST(Options, FillTheCommandLine) {
  const Parse p = parse({"vyqcr", "chdisks", "-n", "a,b", "-n", "c", "-d", "x,y", "-m", "2", "-m",
                         "3", "-WQ", "-FRe", "-YP1191", "-a", "1", "-v7", "-f", "9", "-A", "arc",
                         "-D", "dir", "rest", "-V"});
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.cmd.subcommand, "chdisks");
  EXPECT_EQ(p.cmd.nodeList, std::vector<std::string>{"c"});  // each -n replaces the list
  EXPECT_EQ(p.cmd.diskList, (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(p.cmd.diskOptionMask, 1u + 2u + 2u);
  EXPECT_EQ(p.cmd.minQuorumNodes, 3);
  EXPECT_EQ(p.cmd.nodeChangeMode, 2);  // the later of -W and -Q
  EXPECT_TRUE(p.cmd.force && p.cmd.forceRestore && p.cmd.extendedCheck);
  EXPECT_EQ(p.cmd.newVersion, 7);
  EXPECT_EQ(p.cmd.initNumber, 9);
  EXPECT_EQ(p.cmd.archivePath, "arc");
  EXPECT_EQ(p.cmd.disksDir, "dir");
  EXPECT_EQ(p.cmd.args, (std::vector<std::string>{"rest", "-V"}));
  EXPECT_TRUE(p.settings.machineReadable);
  EXPECT_EQ(p.settings.serverPort, 1191);
  EXPECT_EQ(p.settings.securityMode, 1);
  EXPECT_EQ(p.settings.programName, "vyqcr");
}

TEST(Options, DashCDependsOnTheSubcommandAsTyped) {
  EXPECT_EQ(parse({"v", "setup", "-c", "cert.pem"}).cmd.certFile, "cert.pem");
  EXPECT_EQ(parse({"v", "init", "-c", "18446744073709551615"}).cmd.clusterId, UINT64_MAX);
  const Parse put = parse({"v", "vput", "-c", "abc", "n", "v"});
  EXPECT_EQ(put.cmd.condVersion, 0);  // not a number: 0, not an error
  EXPECT_EQ(put.cmd.certFile, "");
  EXPECT_EQ(parse({"v", "Setup", "-c", "5"}).cmd.condVersion, 5);
  const Parse defaults = parse({"v", "vget", "name"});
  EXPECT_EQ(defaults.cmd.condVersion, -1);
  EXPECT_EQ(defaults.cmd.newVersion, -1);
  EXPECT_EQ(defaults.cmd.minQuorumNodes, 1);
  EXPECT_EQ(defaults.settings.serverPort, -1);
}

TEST(Driver, ChoosesThePersonalityByTheEndOfTheName) {
  struct Case {
    const char* name;
    Personality personality;
  } cases[] = {
      {"qcrsh", Personality::kShell},        {"/usr/bin/qcrsh", Personality::kShell},
      {"xqcrcp", Personality::kCopy},        {"qcrsh.exe", Personality::kMain},
      {"/qcrsh/bin/qcrsh", Personality::kMain},  // only the first "qcrsh" counts
      {"vyqcr", Personality::kMain},         {"qcrsh-old", Personality::kMain},
      {"", Personality::kMain},
  };
  for (const Case& c : cases) EXPECT_EQ(personalityOf(c.name), c.personality) << c.name;
}

TEST(Driver, MapsResultsToExitStatuses) {
  const int table[][2] = {{0, 0},     {802, 150}, {803, 151}, {805, 153}, {807, 154},
                          {806, 155}, {812, 156}, {819, 157}, {809, 158}, {822, 159},
                          {804, 149}, {801, 149}, {1, 149},   {-1, 149},  {38, 149}};
  for (const auto& row : table) EXPECT_EQ(exitStatusFor(row[0]), row[1]) << row[0];
  EXPECT_EQ(remoteExitStatus(0), 0);
  EXPECT_EQ(remoteExitStatus(22), 22);
  EXPECT_EQ(remoteExitStatus(809), 1);
}

}  // namespace
}  // namespace qcr
