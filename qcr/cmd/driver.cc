#include "qcr/cmd/driver.h"

#include <string>

#include "basic/debugger.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/cmd/context.h"
#include "qcr/cmd/subcommands.h"
#include "qcr/coding/result.h"

namespace qcr {
namespace {

// "<arg0> <arg1> ...": logged at level 1 and appended to QCR_CMD_LOG.
void logCommandLine(int argc, const char* const* argv) {
  std::string line;
  for (int i = 0; i < argc; ++i) {
    line += i == 0 ? "<" : "> <";
    line += argv[i];
  }
  if (argc > 0) line += ">";
  qcrLog(1, "called: '%s'", line.c_str());
  appendCommandLog(line);
}

// Steps every personality takes before it looks at its arguments.
void startUp(int argc, const char* const* argv) {
  const std::string traceFile = defaultTraceFile();
  if (const int rc = traceOpen("VYFSD", traceFile); rc != 0) {
    qcrLog(1, "Cannot open trace file %s (err %d)", traceFile.c_str(), rc);
  }
  debuggerWaitCheck("vyqcr", true);
  traceLevel = kDefaultTraceLevel;
  logCommandLine(argc, argv);
}

int mainTool(int argc, const char* const* argv, const std::string& programName) {
  if (argc < 2) {
    printUsage(Personality::kMain, programName);
    return kUsageExitStatus;
  }
  CommandLine cmd;
  ProgramSettings settings;
  if (parseOptions(argc, argv, &cmd, &settings) != 0) {
    return usageError(Personality::kMain, programName, "invalid option");
  }
  Client client;
  CommandContext ctx{cmd, settings, client};
  return RunSubcommand(ctx, programName);
}

}  // namespace

Personality personalityOf(std::string_view programName) {
  auto endsIn = [programName](std::string_view tail) {
    const size_t first = programName.find(tail);
    return first != std::string_view::npos && first + tail.size() == programName.size();
  };
  if (endsIn("qcrsh")) return Personality::kShell;
  if (endsIn("qcrcp")) return Personality::kCopy;
  return Personality::kMain;
}

int exitStatusFor(int result) {
  switch (result) {
    case E_OK: return 0;
    case E_NODE_INIT: return 150;
    case E_DISK_INIT: return 151;
    case E_VERSION_MISMATCH: return 153;
    case E_INVALID_VERSION: return 154;
    case E_VERSION_MATCH: return 155;
    case E_NODES_FILE: return 156;
    case E_NO_LEADER_CONTACT: return 157;
    case E_NO_QUORUM: return 158;
    case E_BEST_GUESS: return 159;
    default: return 149;  // 152 is never produced; 804 is no exception
  }
}

int remoteExitStatus(int result) { return result >= 0 && result <= 255 ? result : 1; }

int DriverMain(int argc, const char* const* argv) {
  const std::string programName = argc > 0 && argv[0] != nullptr ? argv[0] : "";
  startUp(argc, argv);
  switch (personalityOf(programName)) {
    case Personality::kShell: return ShellMain(argc, argv);
    case Personality::kCopy: return CopyMain(argc, argv);
    case Personality::kMain: break;
  }
  return mainTool(argc, argv, programName);
}

}  // namespace qcr
