// The usage texts of the three personalities and the usage error routine.
#pragma once

#include <string>

namespace qcr {

enum class Personality { kMain, kShell, kCopy };

// Exit status of every usage and option error.
inline constexpr int kUsageExitStatus = 1;

// Prints the personality's usage text, with programName, to standard output.
void printUsage(Personality personality, const std::string& programName);

// Writes message and "\n" to standard error (when message is not null), then the
// usage; returns kUsageExitStatus for the caller to hand up to the driver.
[[nodiscard]] int usageError(Personality personality, const std::string& programName,
                             const char* message);

}  // namespace qcr
