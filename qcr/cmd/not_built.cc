// Handlers whose subcommands are not built yet. Each says so on standard error
// and returns ENOSYS, which the driver maps to exit status 149. A handler leaves
// this file when its real implementation arrives.
#include <cerrno>
#include <cstdio>

#include "qcr/cmd/handlers.h"

namespace qcr {
namespace {

int notBuilt(const char* subcommand) {
  fprintf(stderr, "vyqcr: %s: not built yet\n", subcommand);
  return ENOSYS;
}

}  // namespace

int DebugCommand(const std::string& name, const StringList&, const StringList&) {
  return notBuilt(name.c_str());
}
int DumpCommand(const StringList&) { return notBuilt("dump"); }
int QuitCommand(const StringList&) { return notBuilt("quit"); }
int ShowCommand() { return notBuilt("show"); }

int SetupCommand(const CommandLine&) { return notBuilt("setup"); }
int InitCommand(const CommandLine&) { return notBuilt("init"); }
int BackupCommand(const std::string&) { return notBuilt("backup"); }

int CheckCommand(bool) { return notBuilt("check"); }

int RemoteShell(const std::string&, const RemoteCommand&) { return notBuilt("qcrsh"); }

int RemoteCopy(const std::vector<CopyEndpoint>&, const CopyEndpoint&) {
  return notBuilt("qcrcp");
}

}  // namespace qcr
