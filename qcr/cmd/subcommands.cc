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
  int (*run)(const CommandLine&);
};

int config(const CommandLine&) {
  // Hidden from the usage: both listings, an empty line between them.
  const int rc = LsNodes();
  if (rc != 0) return rc;
  fputs("\n", stdout);
  return LsDisks();
}

int debug(const CommandLine& c) { return DebugCommand(c.subcommand, c.nodeList, c.args); }

// Tested in this order; the first exact match wins.
constexpr Subcommand kSubcommands[] = {
    {"echo", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, debug},
    {"trace", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, debug},
    {"msglevel", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, debug},
    {"netdown", ArgCheck::kAny, 0, nullptr, nullptr, nullptr, debug},
    {"dump", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Dump(c.nodeList); }},
    {"show", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine&) { return Show(); }},
    {"readpaxos", ArgCheck::kExact, 1, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return ReadPaxos(c.args[0]); }},
    {"patchpaxos", ArgCheck::kExact, 3, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return PatchPaxos(c.args[0], c.args[1], c.args[2]); }},
    {"quit", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Quit(c.nodeList); }},
    {"setup", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Setup(c); }},
    {"init", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Init(c); }},
    {"auth", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Auth(c.nodeList); }},
    {"refresh", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Refresh(c.nodeList); }},
    {"vlist", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine&) { return VList(); }},
    {"vget", ArgCheck::kExact, 1, "name", nullptr, nullptr,
     [](const CommandLine& c) { return VGet(c.args[0]); }},
    {"vput", ArgCheck::kExact, 2, "name or value", nullptr, nullptr,
     [](const CommandLine& c) { return VPut(c.args[0], c.args[1], c.newVersion, c.condVersion); }},
    {"vdel", ArgCheck::kExactlyOne, 1, nullptr, nullptr, nullptr,
     [](const CommandLine& c) { return VDel(c.args[0], c.condVersion); }},
    {"flist", ArgCheck::kAny, 0, nullptr, nullptr, nullptr,
     [](const CommandLine&) { return FList(); }},
    {"fget", ArgCheck::kExact, 2, "name or file", nullptr, nullptr,
     [](const CommandLine& c) { return FGet(c.args[0], c.args[1], c.condVersion); }},
    {"fput", ArgCheck::kExact, 2, "name or file", nullptr, nullptr,
     [](const CommandLine& c) { return FPut(c.args[0], c.args[1], c.newVersion, c.condVersion); }},
    {"fdel", ArgCheck::kExact, 1, "name", nullptr, nullptr,
     [](const CommandLine& c) { return FDel(c.args[0], c.condVersion); }},
    {"chnodes", ArgCheck::kExact, 0, "Required",
     [](const CommandLine& c) { return !c.nodeList.empty(); }, "-n option missing",
     [](const CommandLine& c) { return ChNodes(c.nodeList, c.force, c.nodeChangeMode); }},
    {"lsnodes", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine&) { return LsNodes(); }},
    {"chdisks", ArgCheck::kAny, 0, nullptr,
     [](const CommandLine& c) { return c.diskOptionMask != 0; },
     "either -d and/or -m option missing", [](const CommandLine& c) { return ChDisks(c); }},
    {"lsdisks", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine&) { return LsDisks(); }},
    {"config", ArgCheck::kExact, 0, "Required", nullptr, nullptr, config},
    {"backup", ArgCheck::kExact, 0, "Required",
     [](const CommandLine& c) { return !c.archivePath.empty(); }, "archivePath argument empty",
     [](const CommandLine& c) { return Backup(c.archivePath); }},
    {"query", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine&) { return Query(); }},
    {"check", ArgCheck::kExact, 0, "Required", nullptr, nullptr,
     [](const CommandLine& c) { return Check(c.extendedCheck); }},
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

int RunSubcommand(const CommandLine& cmd, const std::string& programName) {
  for (const Subcommand& sub : kSubcommands) {
    if (cmd.subcommand != sub.name) continue;
    if (const int status = checkArguments(sub, cmd.args.size(), programName); status != 0) {
      return status;
    }
    if (sub.requirementMet != nullptr && !sub.requirementMet(cmd)) {
      return usageError(Personality::kMain, programName, sub.requirementMessage);
    }
    return exitStatusFor(sub.run(cmd));
  }
  fprintf(stderr, "Unknown subcommand: '%s'", cmd.subcommand.c_str());
  fflush(stderr);
  return usageError(Personality::kMain, programName, nullptr);
}

}  // namespace qcr
