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
int Dump(const StringList&) { return notBuilt("dump"); }
int Quit(const StringList&) { return notBuilt("quit"); }
int Show() { return notBuilt("show"); }

int Setup(const CommandLine&) { return notBuilt("setup"); }
int Init(const CommandLine&) { return notBuilt("init"); }
int Auth(const StringList&) { return notBuilt("auth"); }
int Refresh(const StringList&) { return notBuilt("refresh"); }
int Backup(const std::string&) { return notBuilt("backup"); }

int ChNodes(const StringList&, bool, uint8_t) { return notBuilt("chnodes"); }
int LsNodes() { return notBuilt("lsnodes"); }
int ChDisks(const CommandLine&) { return notBuilt("chdisks"); }
int LsDisks() { return notBuilt("lsdisks"); }

int Check(bool) { return notBuilt("check"); }

int RemoteShell(const std::string&, const RemoteCommand&) { return notBuilt("qcrsh"); }

int RemoteCopy(const std::vector<CopyEndpoint>&, const CopyEndpoint&) {
  return notBuilt("qcrcp");
}

}  // namespace qcr
