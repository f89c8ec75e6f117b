// The main tool's subcommand table and its dispatch.
#pragma once

#include <string>

#include "qcr/cmd/context.h"

namespace qcr {

// Finds ctx.cmd.subcommand (exact, case-sensitive), checks the number of
// positional arguments and the options the subcommand requires, and runs its
// handler with ctx.
// Returns the exit status: kUsageExitStatus after a usage error (message and usage
// printed), otherwise the handler's result mapped by exitStatusFor().
[[nodiscard]] int RunSubcommand(CommandContext& ctx, const std::string& programName);

}  // namespace qcr
