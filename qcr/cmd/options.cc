#include "qcr/cmd/options.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "basic/getopt.h"
#include "basic/log.h"

namespace qcr {
namespace {

constexpr const char* kMainOptions = "VyYFWQRP:p:n:f:d:D:c:a:v:m:A:e?";

// Options whose argument names a list, a directory or a path.
void applyPathOption(int letter, const std::string& arg, CommandLine* cmd) {
  switch (letter) {
    case 'p':
    case 'n':
      cmd->nodeList = splitList(arg);
      qcrLog(1, "Parsed %d nodes from the given list of nodes", int(cmd->nodeList.size()));
      break;
    case 'd':
      cmd->diskList = splitList(arg);
      cmd->diskOptionMask += 1;
      qcrLog(1, "Parsed %d disks from the given list of disks", int(cmd->diskList.size()));
      break;
    case 'D':
      if (arg.empty()) {
        fputs("No directory for disks specified", stderr);  // then parsing goes on
        break;
      }
      cmd->disksDir = arg;
      qcrLog(1, "Given directory for disks: '%s'", arg.c_str());
      break;
    case 'A':
      if (arg.empty()) {
        fputs("No path for QCR archive file specified", stderr);
        break;
      }
      cmd->archivePath = arg;
      qcrLog(4, "Given path for QCR archive file: '%s'", arg.c_str());
      break;
  }
}

// Applies one parsed option; false for a letter the tool does not accept.
bool applyOption(int letter, const std::string& arg, CommandLine* cmd,
                 ProgramSettings* settings) {
  switch (letter) {
    case 'V': ++verbosity; break;
    case 'y':
    case 'Y': settings->machineReadable = true; break;
    case 'F': cmd->force = true; break;
    case 'W': cmd->nodeChangeMode = 1; break;
    case 'Q': cmd->nodeChangeMode = 2; break;
    case 'R': cmd->forceRestore = true; break;
    case 'e': cmd->extendedCheck = true; break;
    case 'P': settings->serverPort = readInt32(arg); break;
    case 'a': settings->securityMode = readInt32(arg); break;
    case 'v': cmd->newVersion = readInt32(arg); break;
    case 'f': cmd->initNumber = readInt32(arg); break;
    case 'm':
      cmd->minQuorumNodes = readInt32(arg);
      cmd->diskOptionMask += 2;
      break;
    case 'c':
      // Decided on the subcommand as typed, before it is known to be valid.
      if (cmd->subcommand == "setup") {
        cmd->certFile = arg;
      } else if (cmd->subcommand == "init") {
        cmd->clusterId = readUInt64(arg);
      } else {
        cmd->condVersion = readInt32(arg);
      }
      break;
    case 'p':
    case 'n':
    case 'd':
    case 'D':
    case 'A': applyPathOption(letter, arg, cmd); break;
    default: return false;  // '?' from the parser, or "-?" itself
  }
  return true;
}

}  // namespace

// Leading blanks are skipped and anything after the digits is ignored; text
// that does not start with a number gives 0, and a number out of range the limit.
// Formatted stream input would do the same, but the streams' locale set-up costs
// every short-lived command a measurable part of its run time.
int32_t readInt32(const std::string& text) {
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

uint64_t readUInt64(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); }

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (start < text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    pieces.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return pieces;
}

int parseOptions(int argc, const char* const* argv, CommandLine* cmdP,
                 ProgramSettings* settingsP) {
  settingsP->programName = argc > 0 && argv[0] != nullptr ? argv[0] : "";
  cmdP->subcommand = argc > 1 ? argv[1] : "";
  OptionParser parser(argc, argv, kMainOptions, settingsP->programName, 2);
  for (int letter; (letter = parser.next()) != OptionParser::kEndOfOptions;) {
    if (!applyOption(letter, parser.argument(), cmdP, settingsP)) return kOptionsInvalid;
  }
  cmdP->args.assign(argv + parser.index(), argv + argc);
  return 0;
}

}  // namespace qcr
