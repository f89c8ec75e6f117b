// The qcrsh and qcrcp personalities: their options and argument checks. The
// remote work itself is done by RemoteShell and RemoteCopy (handlers.h).
#include <string>
#include <vector>

#include "basic/getopt.h"
#include "basic/log.h"
#include "qcr/cmd/driver.h"
#include "qcr/cmd/handlers.h"

namespace qcr {
namespace {

// Parses qcrsh's options from *indexP on; false on a letter it does not accept.
bool parseShellOptions(int argc, const char* const* argv, int* indexP, std::string* userP) {
  OptionParser parser(argc, argv, "+Vl:nm?", argv[0], *indexP);
  for (int letter; (letter = parser.next()) != OptionParser::kEndOfOptions;) {
    if (letter == 'V') {
      ++verbosity;
    } else if (letter == 'l') {
      *userP = parser.argument();  // kept for the command line's sake; never sent
    } else if (letter != 'n') {
      return false;  // -m and -? are in the option string but not accepted
    }
  }
  *indexP = parser.index();
  return true;
}

}  // namespace

int ShellMain(int argc, const char* const* argv) {
  const std::string programName = argv[0];
  std::string user = "root";
  int index = 1;
  if (!parseShellOptions(argc, argv, &index, &user)) {
    return usageError(Personality::kShell, programName, "invalid option");
  }
  if (index >= argc) return usageError(Personality::kShell, programName, "hostname missing");
  const std::string host = argv[index++];
  // Options may follow the host too.
  if (!parseShellOptions(argc, argv, &index, &user)) {
    return usageError(Personality::kShell, programName, "invalid option");
  }
  if (index >= argc) return usageError(Personality::kShell, programName, "Not enough arguments");
  RemoteCommand command;
  const int rc = buildRemoteCommand(std::vector<std::string>(argv + index, argv + argc), &command);
  return remoteExitStatus(rc != 0 ? rc : RemoteShell(host, command));
}

int CopyMain(int argc, const char* const* argv) {
  const std::string programName = argv[0];
  OptionParser parser(argc, argv, "+Vp?", programName, 1);
  for (int letter; (letter = parser.next()) != OptionParser::kEndOfOptions;) {
    if (letter == 'V') {
      ++verbosity;
    } else if (letter != 'p') {
      return usageError(Personality::kCopy, programName, "invalid option");
    }
  }
  if (argc - parser.index() < 2) {
    return usageError(Personality::kCopy, programName, "Not enough arguments");
  }
  const CopyEndpoint target = parseCopyEndpoint(argv[argc - 1]);
  if (target.path.empty()) return usageError(Personality::kCopy, programName, "target path empty");
  std::vector<CopyEndpoint> sources;
  for (int i = parser.index(); i < argc - 1; ++i) {
    sources.push_back(parseCopyEndpoint(argv[i]));
    if (sources.back().isRemote() == target.isRemote()) {
      // Exactly one side of every copy is on a node.
      return usageError(Personality::kCopy, programName,
                        target.isRemote() ? "remote-to-remote copy not supported"
                                          : "local-to-local copy not supported");
    }
  }
  return remoteExitStatus(RemoteCopy(sources, target));
}

}  // namespace qcr
