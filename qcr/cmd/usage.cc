#include "qcr/cmd/usage.h"

#include <cstdio>

namespace qcr {
namespace {

// Each text is a format with one "%s" for the program name. "[-c version ]" keeps
// its inner blank, and the hidden "config" subcommand is deliberately not listed.
constexpr const char* kMainUsage =
    "Usage: %s subcommand common-options subcommand-options...\n"
    "\n"
    "Subcommands:\n"
    "\n"
    "Setup and Initialization:\n"
    "  setup [-c certFile] [-p nodeList] [-F|-R]\n"
    "                                      -- local first-time setup from nodeList\n"
    "  init {-n nodeList [-d diskList] [-D disksDir] [-m minQuorumNodes] | -A archivePath} [-c clusterId]\n"
    "                                      -- create new repository\n"
    "  auth [-n nodeList]                  -- refresh security config on nodeList\n"
    "  refresh [-n nodeList]               -- refresh local paxos config from nodeList\n"
    "  backup -A archivePath               -- create compressed tar file of the whole repository\n"
    "\n"
    "Update and retrieve QCR configuration:\n"
    "  lsnodes                             -- list quorum node configuration\n"
    "  chnodes -n nodeList [-F|-W|-Q]      -- change the quorum node configuration\n"
    "  lsdisks                             -- list tiebreaker disk configuration\n"
    "  chdisks -d diskList [-m minQuorumNodes]\n"
    "                                      -- change the tiebreaker disk configuration\n"
    "\n"
    "Update and retrieve QCR content:\n"
    "  vlist                               -- list named values\n"
    "  vput [-c version ] [-v version] name value\n"
    "                                      -- store named value\n"
    "  vget [-c version ] name             -- retrieve named value\n"
    "  vdel [-c version ] name             -- delete named value\n"
    "  flist                               -- list files stored in repository\n"
    "  fput [-c version ] [-v version] name localpath\n"
    "                                      -- store localpath as named file in repository\n"
    "  fget [-c version ] name localpath   -- retrieve named file from repository into localpath\n"
    "  fdel [-c version ] name             -- delete named file from repository\n"
    "  query                               -- retrieve paxos state\n"
    "\n"
    "Testing and debugging:\n"
    "  show                             -- get and display current paxos state\n"
    "  trace [-n nodeList] traceLevel   -- set trace level on specified nodes\n"
    "  msglevel [-n nodeList] msglevel  -- set console msg level on specified nodes\n"
    "  dump [-n nodeList]               -- dump qcr state on specified nodes\n"
    "  echo [-n nodeList] string        -- send test RPC to specified nodes\n"
    "  readpaxos localpath              -- read paxos state from local file\n"
    "  patchpaxos infile committeddir outfile  -- patch paxos state\n"
    "  netdown [-n nodeList] [0|1]      -- simulate network failure on specified nodes\n"
    "  quit [-n nodeList]               -- stop qcr server on specified nodes\n"
    "  check [-e]                       -- check essential qcr parts\n"
    "\n"
    "Common options:\n"
    "  -P port: port number\n"
    "\n"
    "Subcommand specific options:\n"
    "  -c version: conditionally put/get\n"
    "  -v version: store as specified version\n"
    "  -F: force (override warning)\n"
    "  -R: force restore\n"
    "  -e: extended checks\n"
    "\n";

constexpr const char* kShellUsage = "Usage: %s [-n] [-l user] host command [args ...]\n";
constexpr const char* kCopyUsage =
    "Usage: %s [-p] [[user@]host:]source [[user@]host:]target\n";

}  // namespace

void printUsage(Personality personality, const std::string& programName) {
  const char* text = personality == Personality::kShell  ? kShellUsage
                     : personality == Personality::kCopy ? kCopyUsage
                                                         : kMainUsage;
  fprintf(stdout, text, programName.c_str());
  fflush(stdout);
}

int usageError(Personality personality, const std::string& programName, const char* message) {
  if (message != nullptr) {
    fprintf(stderr, "%s\n", message);
    fflush(stderr);
  }
  printUsage(personality, programName);
  return kUsageExitStatus;
}

}  // namespace qcr
