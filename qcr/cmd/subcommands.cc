#include "qcr/cmd/subcommands.h"

#include <cstdio>

#include "qcr/cmd/driver.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/usage.h"

namespace qcr {
namespace {

enum class ArgCheck {
  kAny,          // not checked
  kExact,        // "<label> parameter missing" / "Too many arguments"
  kExactlyOne,   // vdel: any other count is "missing or extraneous arguments"
};

struct Subcommand {
  const char* name;
  ArgCheck check;
  size_t expected;
  const char* label;
  bool (*requirementMet)(const CommandLine&);  // null when nothing further is required
  const char* requirementMessage;
  int (*run)(CommandContext&);
};

// Tested in this order; the first exact match wins.
constexpr Subcommand kSubcommands[] = {
    {"echo", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, DebugCommand},
    {"trace", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, DebugCommand},
    {"msglevel", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, DebugCommand},
    {"netdown", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, DebugCommand},
    {"dump", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     DumpCommand},
    {"show", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     ShowCommand},
    {"readpaxos", ArgCheck::kExact, 1, "Required", nullptr, nullptr,
     [](CommandContext& x) { return ReadPaxosCommand(x.cmd.args[0]); }},
    {"patchpaxos", ArgCheck::kExact, 3, "Required", nullptr, nullptr,
     [](CommandContext& x) {
       return PatchPaxosCommand(x.cmd.args[0], x.cmd.args[1], x.cmd.args[2]);
     }},
    {"quit", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     QuitCommand},
    {"setup", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     SetupCommand},
    {"init", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     InitCommand},
    {"auth", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     AuthCommand},
    {"refresh", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     RefreshCommand},
    {"vlist", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](CommandContext& x) { return VlistCommand(x); }},
    {"vget", ArgCheck::kExact, 1, "name", nullptr, nullptr,
     [](CommandContext& x) { return VgetCommand(x, x.cmd.args[0]); }},
    {"vput", ArgCheck::kExact, 2, "name or value", nullptr, nullptr,
     [](CommandContext& x) {
       return VputCommand(x, x.cmd.args[0], x.cmd.args[1], x.cmd.newVersion, x.cmd.condVersion);
     }},
    {"vdel", ArgCheck::kExactlyOne, 1, nullptr, nullptr, nullptr,
     [](CommandContext& x) { return VdelCommand(x, x.cmd.args[0], x.cmd.condVersion); }},
    {"flist", ArgCheck::kAny, 0, nullptr, nullptr, nullptr,
     [](CommandContext& x) { return FlistCommand(x); }},
    {"fget", ArgCheck::kExact, 2, "name or file", nullptr, nullptr,
     [](CommandContext& x) {
       return FgetCommand(x, x.cmd.args[0], x.cmd.args[1], x.cmd.condVersion);
     }},
    {"fput", ArgCheck::kExact, 2, "name or file", nullptr, nullptr,
     [](CommandContext& x) {
       return FputCommand(x, x.cmd.args[0], x.cmd.args[1], x.cmd.newVersion, x.cmd.condVersion);
     }},
    {"fdel", ArgCheck::kExact, 1, "name", nullptr, nullptr,
     [](CommandContext& x) { return FdelCommand(x, x.cmd.args[0], x.cmd.condVersion); }},
    {"chnodes", ArgCheck::kExact, 0, "Required",
     [](const CommandLine& c) { return !c.nodeList.empty(); }, "-n option missing",
     ChNodesCommand},
    {"lsnodes", ArgCheck::kExact, 0, "Required", nullptr, nullptr, LsNodesCommand},
    {"chdisks", ArgCheck::kAny, 0, nullptr,
     [](const CommandLine& c) { return c.diskOptionMask != 0; },
     "either -d and/or -m option missing", ChDisksCommand},
    {"lsdisks", ArgCheck::kExact, 0, "Required", nullptr, nullptr, LsDisksCommand},
    // Hidden from the usage.
    {"config", ArgCheck::kExact, 0, "Required", nullptr, nullptr, ConfigCommand},
    {"backup", ArgCheck::kExact, 0, "Required",
     [](const CommandLine& c) { return !c.archivePath.empty(); }, "archivePath argument empty",
     BackupCommand},
    {"query", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](CommandContext& x) { return QueryCommand(x); }},
    {"check", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     CheckCommand},
};

// The argument check routine: 0 when the count fits, else the usage error status.
int checkArguments(const Subcommand& sub, size_t count, const std::string& programName) {
  if (sub.check == ArgCheck::kAny) return 0;
  if (sub.check == ArgCheck::kExactlyOne) {
    if (count == 1) return 0;
    return usageError(Personality::kMain, programName, "missing or extraneous arguments");
  }
  if (count == sub.expected) return 0;
  if (count < sub.expected) {
    fprintf(stderr, "%s parameter missing\n\n", sub.label);
  } else {
    fputs("Too many arguments\n\n", stderr);
  }
  return usageError(Personality::kMain, programName, nullptr);
}

}  // namespace

int RunSubcommand(CommandContext& ctx, const std::string& programName) {
  const CommandLine& cmd = ctx.cmd;
  for (const Subcommand& sub : kSubcommands) {
    if (cmd.subcommand != sub.name) continue;
    if (const int status = checkArguments(sub, cmd.args.size(), programName); status != 0) {
      return status;
    }
    if (sub.requirementMet != nullptr && !sub.requirementMet(cmd)) {
      return usageError(Personality::kMain, programName, sub.requirementMessage);
    }
    const int rc = sub.run(ctx);
    return rc == kHandlerUsageError ? kUsageExitStatus : exitStatusFor(rc);
  }
  fprintf(stderr, "Unknown subcommand: '%s'", cmd.subcommand.c_str());
  fflush(stderr);
  return usageError(Personality::kMain, programName, nullptr);
}

}  // namespace qcr
