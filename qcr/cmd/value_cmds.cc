// vlist, vget, vput and vdel: the named values of the repository.
#include <cstdio>

#include "qcr/cmd/handlers.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"

namespace qcr {

int VlistCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.VGET(&result); rc != 0) return commandFailed("list", rc);
  fputs("  version  name                 value\n"
        "---------  -------------------- --------------------------------------------\n",
        stdout);
  for (const auto& [name, value] : result.state.values) {
    printf("%9d  %-20s \"%s\"\n", value.version, name.c_str(), value.text.c_str());
  }
  return 0;
}

int VgetCommand(CommandContext& ctx, const std::string& name) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.VGET(&result); rc != 0) return commandFailed("vget", rc);
  const auto iter = result.state.values.find(name);
  if (iter == result.state.values.end()) {
    fprintf(stderr, "\"%s\" is undefined\n", name.c_str());
    return E_NOT_FOUND;
  }
  printf("vget:%d:%s\n", iter->second.version, iter->second.text.c_str());
  return 0;
}

int VputCommand(CommandContext& ctx, const std::string& name, const std::string& value,
                int32_t newVersion, int32_t condVersion) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.VPUT(name, value, newVersion, condVersion, &result); rc != 0) {
    return commandFailed("vput", rc);
  }
  return 0;
}

int VdelCommand(CommandContext& ctx, const std::string& name, int32_t condVersion) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.VDEL(name, condVersion, &result); rc != 0) {
    return commandFailed("vdel", rc);
  }
  return 0;
}

}  // namespace qcr
