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

int RemoteShell(const std::string&, const RemoteCommand&) { return notBuilt("qcrsh"); }

int RemoteCopy(const std::vector<CopyEndpoint>&, const CopyEndpoint&) {
  return notBuilt("qcrcp");
}

}  // namespace qcr
