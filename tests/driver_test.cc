// End-to-end tests of the command driver: the real vyqcr program under its three
// names, with exact standard output, standard error and exit status.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "testing/run_program.h"

namespace qcr::test {
namespace {

// The golden copies of the three usage texts; "%s" stands for the program name.
constexpr const char* kMainUsage = R"(Usage: %s subcommand common-options subcommand-options...

Subcommands:

Setup and Initialization:
  setup [-c certFile] [-p nodeList] [-F|-R]
                                      -- local first-time setup from nodeList
  init {-n nodeList [-d diskList] [-D disksDir] [-m minQuorumNodes] | -A archivePath} [-c clusterId]
                                      -- create new repository
  auth [-n nodeList]                  -- refresh security config on nodeList
  refresh [-n nodeList]               -- refresh local paxos config from nodeList
  backup -A archivePath               -- create compressed tar file of the whole repository

Update and retrieve QCR configuration:
  lsnodes                             -- list quorum node configuration
  chnodes -n nodeList [-F|-W|-Q]      -- change the quorum node configuration
  lsdisks                             -- list tiebreaker disk configuration
  chdisks -d diskList [-m minQuorumNodes]
                                      -- change the tiebreaker disk configuration

Update and retrieve QCR content:
  vlist                               -- list named values
  vput [-c version ] [-v version] name value
                                      -- store named value
  vget [-c version ] name             -- retrieve named value
  vdel [-c version ] name             -- delete named value
  flist                               -- list files stored in repository
  fput [-c version ] [-v version] name localpath
                                      -- store localpath as named file in repository
  fget [-c version ] name localpath   -- retrieve named file from repository into localpath
  fdel [-c version ] name             -- delete named file from repository
  query                               -- retrieve paxos state

Testing and debugging:
  show                             -- get and display current paxos state
  trace [-n nodeList] traceLevel   -- set trace level on specified nodes
  msglevel [-n nodeList] msglevel  -- set console msg level on specified nodes
  dump [-n nodeList]               -- dump qcr state on specified nodes
  echo [-n nodeList] string        -- send test RPC to specified nodes
  readpaxos localpath              -- read paxos state from local file
  patchpaxos infile committeddir outfile  -- patch paxos state
  netdown [-n nodeList] [0|1]      -- simulate network failure on specified nodes
  quit [-n nodeList]               -- stop qcr server on specified nodes
  check [-e]                       -- check essential qcr parts

Common options:
  -P port: port number

Subcommand specific options:
  -c version: conditionally put/get
  -v version: store as specified version
  -F: force (override warning)
  -R: force restore
  -e: extended checks

)";
constexpr const char* kShellUsage = "Usage: %s [-n] [-l user] host command [args ...]\n";
constexpr const char* kCopyUsage = "Usage: %s [-p] [[user@]host:]source [[user@]host:]target\n";

// Replaces every "%s" (usage texts) and "{prog}" (messages) with the program name.
std::string withProgram(std::string text, const std::string& program) {
  for (const char* mark : {"%s", "{prog}"}) {
    for (size_t at; (at = text.find(mark)) != std::string::npos;) {
      text.replace(at, std::string_view(mark).size(), program);
    }
  }
  return text;
}

struct Case {
  std::vector<std::string> args;  // after the program name
  const char* usage;              // expected on standard output (null: nothing)
  const char* err;
  int status;
};

void runCases(const std::string& program, const std::vector<Case>& cases) {
  TestBase base;
  for (const Case& c : cases) {
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const ProgramResult r = runProgram(argv, base.env());
    std::string where = program;
    for (const std::string& a : c.args) where += " '" + a + "'";
    EXPECT_EQ(r.out, c.usage != nullptr ? withProgram(c.usage, program) : "") << where;
    EXPECT_EQ(r.err, withProgram(c.err, program)) << where;
    EXPECT_EQ(r.exitCode, c.status) << where;
  }
}

const char* const kBadX = "{prog}: `x' is not a valid option.\ninvalid option\n";

TEST(Driver, UsageAndOptionErrors) {
  runCases(binPath("vyqcr"),
           {
               {{}, kMainUsage, "", 1},
               {{"vget", "-x", "n"}, kMainUsage, kBadX, 1},
               {{"vget", "-P"}, kMainUsage,
                "{prog}: the `P' option requires an argument.\ninvalid option\n", 1},
               {{"vget", "-?", "n"}, kMainUsage, "invalid option\n", 1},
               {{"bogus", "-x"}, kMainUsage, kBadX, 1},  // options are parsed first
               {{"bogus"}, kMainUsage, "Unknown subcommand: 'bogus'", 1},
               {{"VGET", "n"}, kMainUsage, "Unknown subcommand: 'VGET'", 1},
               {{"-V"}, kMainUsage, "Unknown subcommand: '-V'", 1},
           });
}

TEST(Driver, ArgumentCountsAndRequiredOptions) {
  runCases(binPath("vyqcr"),
           {
               {{"vget"}, kMainUsage, "name parameter missing\n\n", 1},
               {{"vget", "a", "b"}, kMainUsage, "Too many arguments\n\n", 1},
               {{"vget", "name", "-c", "3"}, kMainUsage, "Too many arguments\n\n", 1},
               {{"vput", "n"}, kMainUsage, "name or value parameter missing\n\n", 1},
               {{"fget", "n"}, kMainUsage, "name or file parameter missing\n\n", 1},
               {{"readpaxos"}, kMainUsage, "Required parameter missing\n\n", 1},
               {{"patchpaxos", "a", "b"}, kMainUsage, "Required parameter missing\n\n", 1},
               {{"show", "x"}, kMainUsage, "Too many arguments\n\n", 1},
               {{"config", "x"}, kMainUsage, "Too many arguments\n\n", 1},
               {{"vdel"}, kMainUsage, "missing or extraneous arguments\n", 1},
               {{"vdel", "a", "b"}, kMainUsage, "missing or extraneous arguments\n", 1},
               {{"chnodes"}, kMainUsage, "-n option missing\n", 1},
               {{"chnodes", "x", "-n", "a"}, kMainUsage, "Too many arguments\n\n", 1},
               {{"chdisks", "-F"}, kMainUsage, "either -d and/or -m option missing\n", 1},
               {{"backup"}, kMainUsage, "archivePath argument empty\n", 1},
               {{"backup", "-A", ""}, kMainUsage,
                "No path for QCR archive file specifiedarchivePath argument empty\n", 1},
           });
}

// Command lines that pass the driver's checks: the handler runs (whatever it then
// reports), so there is no usage text and no usage status. err is what the driver
// itself writes before the handler starts.
struct Reaches {
  std::vector<std::string> args;
  const char* err;
};

void expectHandlerRuns(const std::string& program, const std::vector<Reaches>& rows) {
  TestBase base;
  for (const Reaches& row : rows) {
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const ProgramResult r = runProgram(argv, base.env());
    const std::string where = program + " " + row.args.at(0);
    EXPECT_EQ(r.out.find("Usage:"), std::string::npos) << where;
    EXPECT_TRUE(r.err.starts_with(row.err)) << where << ": " << r.err;
    EXPECT_NE(r.exitCode, 1) << where;
    EXPECT_EQ(r.signal, -1) << where;
  }
}

TEST(Driver, RunsTheHandler) {
  expectHandlerRuns(
      binPath("vyqcr"),
      {
          {{"vput", "-c", "abc", "n", "v"}, ""},
          {{"flist", "extra"}, ""},  // flist ignores extra words
          {{"chdisks", "-m", "2"}, ""},
          {{"echo", "x", "y"}, ""},
          {{"config"}, ""},
          {{"vget", "-D", "", "n"}, "No directory for disks specified"},
          {{"chnodes", "-V", "-n", "a,,b"}, "Parsed 3 nodes from the given list of nodes\n"},
          {{"chnodes", "-n", "a,,b", "-V", "-d", "x", "-D", "dir", "-A", "arc"},
           "Parsed 1 disks from the given list of disks\nGiven directory for disks: 'dir'\n"},
      });
  expectHandlerRuns(binPath("qcrsh"), {{{"-n", "-l", "admin", "node1", "-V", "date"}, ""}});
  expectHandlerRuns(binPath("qcrcp"),
                    {{{"-p", "a", "u@n1:b"}, ""}, {{"[10:0:0:1]:a", "n1:b", "/tmp/x"}, ""}});
}

TEST(Driver, RemoteShellArguments) {
  runCases(binPath("qcrsh"),
           {
               {{}, kShellUsage, "hostname missing\n", 1},
               {{"-n", "-V"}, kShellUsage, "hostname missing\n", 1},
               {{"node1"}, kShellUsage, "Not enough arguments\n", 1},
               {{"node1", "-l", "admin"}, kShellUsage, "Not enough arguments\n", 1},
               {{"-x", "node1", "date"}, kShellUsage, kBadX, 1},
               {{"node1", "-x", "date"}, kShellUsage, kBadX, 1},
               {{"-m", "node1", "date"}, kShellUsage, "invalid option\n", 1},
               {{"-?", "node1", "date"}, kShellUsage, "invalid option\n", 1},
               {{"-l"}, kShellUsage,
                "{prog}: the `l' option requires an argument.\ninvalid option\n", 1},
               {{"node1", "A=1"}, nullptr, "command argument missing\n", 22},
               {{"node1", "echo 'x", "y"}, nullptr, "unmatched quotes: 'x y \n\n", 22},
           });
}

TEST(Driver, RemoteCopyArguments) {
  runCases(binPath("qcrcp"),
           {
               {{}, kCopyUsage, "Not enough arguments\n", 1},
               {{"-p", "a"}, kCopyUsage, "Not enough arguments\n", 1},
               {{"-x", "a", "b"}, kCopyUsage, kBadX, 1},
               {{"-l", "a", "b"}, kCopyUsage,
                "{prog}: `l' is not a valid option.\ninvalid option\n", 1},
               {{"a", "node1:"}, kCopyUsage, "target path empty\n", 1},
               {{"a", ""}, kCopyUsage, "target path empty\n", 1},
               {{"n1:a", "n2:b"}, kCopyUsage, "remote-to-remote copy not supported\n", 1},
               {{"a", "n1:x", "n2:b"}, kCopyUsage, "remote-to-remote copy not supported\n", 1},
               {{"a", "b"}, kCopyUsage, "local-to-local copy not supported\n", 1},
           });
}

// Names that no server takes and local files without a size to announce end the
// command at once: no node list is needed, no server is asked, nothing is retried
// (a run that waits is killed after 10 s and fails the test).
TEST(Driver, FileNamesAndNonRegularFilesAreRefusedBeforeAnyServerIsAsked) {
  TestBase base;
  const std::string fifo = base.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string badName =
      "' is not a valid file name: it must not be empty, hold '/' or control characters, or be "
      "too long\n";
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{"fput", "a/b", "F"}, "'a/b" + badName},
      {{"fput", "a\nb", "F"}, "'a\\nb" + badName},
      {{"fget", "a/b", base.file("got")}, "'a/b" + badName},
      {{"fdel", "x\ty"}, "'x\\x09y" + badName},
      {{"fdel", ""}, "'" + badName},
      {{"fput", "x", fifo}, "'" + fifo + "' is not a regular file\n"},
      {{"fput", "x", base.path()}, "'" + base.path() + "' is not a regular file\n"},
      {{"fput", "x", "/dev/null"}, "'/dev/null' is not a regular file\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {binPath("vyqcr")};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const ProgramResult r = runProgram(argv, base.env(), 10000);
    EXPECT_EQ(r.out, "") << c.args[1];
    EXPECT_EQ(r.err, c.err) << c.args[1];
    EXPECT_EQ(r.exitCode, 149) << c.args[1];  // EINVAL
  }
}

TEST(Driver, AppendsEveryCommandLineToTheCommandLog) {
  TestBase base;
  const std::string log = base.file("cmd.log");
  const auto env = base.env({"QCR_CMD_LOG=" + log});
  runProgram({binPath("vyqcr"), "vget", "a b"}, env);
  runProgram({binPath("vyqcr")}, env);
  runProgram({binPath("qcrsh"), "node1", "A=1"}, env);
  EXPECT_EQ(readFileText(log), "<" + binPath("vyqcr") + "> <vget> <a b>\n<" + binPath("vyqcr") +
                                   ">\n<" + binPath("qcrsh") + "> <node1> <A=1>\n");
  // A log that cannot be opened is skipped silently.
  const ProgramResult r =
      runProgram({binPath("vyqcr"), "bogus"}, base.env({"QCR_CMD_LOG=" + base.file("no/such")}));
  EXPECT_EQ(r.err, "Unknown subcommand: 'bogus'");
}

}  // namespace
}  // namespace qcr::test
