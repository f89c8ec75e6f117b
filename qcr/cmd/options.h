// The parsed command line of the main tool and the settings that its common
// options set.
//
// parseOptions() fills a CommandLine from the words after the subcommand. It never
// exits: on a bad option it prints the parser's message and returns
// kOptionsInvalid, and the driver reports the usage error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

// One run's command line; built once by the driver and handed to the handlers.
struct CommandLine {
  std::string subcommand;
  std::vector<std::string> nodeList;  // -n / -p: each occurrence replaces the list
  std::vector<std::string> diskList;  // -d
  std::string disksDir;               // -D
  std::string archivePath;            // -A
  std::string certFile;               // -c with "setup"
  uint64_t clusterId = 0;             // -c with "init"
  int32_t condVersion = -1;           // -c otherwise; -1: no condition
  int32_t newVersion = -1;            // -v; -1: no explicit version
  int32_t minQuorumNodes = 1;         // -m
  int32_t initNumber = -1;            // -f, handed to init only
  uint32_t diskOptionMask = 0;        // +1 per -d, +2 per -m
  bool force = false;                 // -F
  uint8_t nodeChangeMode = 0;         // -W: 1, -Q: 2 (the later one wins)
  bool forceRestore = false;          // -R
  bool extendedCheck = false;         // -e
  std::vector<std::string> args;      // positional arguments after the options
};

// One run's settings; the driver fills them from the options and hands them to
// the handlers with the command line (qcr/cmd/context.h). Verbosity (-V) lives in
// basic/log.h.
struct ProgramSettings {
  std::string programName;      // argv[0] as given
  bool machineReadable = false;  // -y / -Y
  int32_t serverPort = -1;       // -P; -1: QCR_PORT or the built-in port
  int32_t securityMode = 0;      // -a; the command prologue overwrites it
};

inline constexpr int kOptionsInvalid = -1;

// Parses the options in argv[2..] with the main tool's option string and fills
// *cmdP (subcommand, options, positional args) and *settingsP. Each -V raises
// basic/log.h's verbosity at once, so later option diagnostics honour it.
// Returns 0, or kOptionsInvalid after the parser's message (if any) was printed.
[[nodiscard]] int parseOptions(int argc, const char* const* argv, CommandLine* cmdP,
                               ProgramSettings* settingsP);

// Reads a decimal number the way stream extraction does: leading white space
// skipped, trailing text ignored, 0 when the text does not start with a number.
int32_t readInt32(const std::string& text);
uint64_t readUInt64(const std::string& text);

// Splits a list argument at every ","; empty pieces inside are kept ("a,,b" gives
// three), a trailing one is not ("a," gives one, "" none).
std::vector<std::string> splitList(const std::string& text);

}  // namespace qcr
