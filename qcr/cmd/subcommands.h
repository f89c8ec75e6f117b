// The main tool's subcommand table and its dispatch.
#pragma once

#include <string>

#include "qcr/cmd/options.h"

namespace qcr {

// Finds cmd.subcommand (exact, case-sensitive), checks the number of positional
// arguments and the options the subcommand requires, and runs its handler.
// Returns the exit status: kUsageExitStatus after a usage error (message and usage
// printed), otherwise the handler's result mapped by exitStatusFor().
[[nodiscard]] int RunSubcommand(const CommandLine& cmd, const std::string& programName);

}  // namespace qcr
