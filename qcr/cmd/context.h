// What a subcommand handler works with: the run's command line, its settings and
// its client. The driver builds one per run and hands it down; nothing in the
// command path reads settings from anywhere else.
#pragma once

#include "qcr/client/client.h"
#include "qcr/cmd/options.h"

namespace qcr {

struct CommandContext {
  const CommandLine& cmd;
  ProgramSettings& settings;  // the prologue records the security mode it found
  Client& client;
};

}  // namespace qcr
