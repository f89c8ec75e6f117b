// flist, fget, fput, fdel and query: the named files and the state of the
// repository.
#include <cstdio>

#include "basic/files.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"

namespace qcr {

int FlistCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.FLIST(&result); rc != 0) return commandFailed("list files", rc);
  fputs("  version  name\n---------  --------------------\n", stdout);
  for (const FileListEntry& entry : result.files) {
    const auto iter = result.state.files.find(entry.objId);
    const int32_t version = iter == result.state.files.end() ? 0 : iter->second.version;
    printf("%9d  %-20s\n", version, entry.name.c_str());
  }
  return 0;
}

int FgetCommand(CommandContext& ctx, const std::string& name, const std::string& localPath,
                int32_t condVersion) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.FGET(name, localPath, condVersion, &result); rc != 0) {
    return commandFailed("get file", rc);
  }
  const auto iter = result.state.files.find(result.fid);
  printf("fget:%d\n", iter == result.state.files.end() ? -1 : iter->second.version);
  return 0;
}

int FputCommand(CommandContext& ctx, const std::string& name, const std::string& localPath,
                int32_t newVersion, int32_t condVersion) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  if (!fileExists(localPath)) {
    fprintf(stderr, "'%s' does not exist\n", localPath.c_str());
    return E_NO_FILE;
  }
  RequestResult result;
  if (const int rc = ctx.client.FPUT(name, localPath, newVersion, condVersion, 0, &result);
      rc != 0) {
    return commandFailed("fput", rc);
  }
  return 0;
}

int FdelCommand(CommandContext& ctx, const std::string& name, int32_t condVersion) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.FDEL(name, condVersion, &result); rc != 0) {
    return commandFailed("fdel", rc);
  }
  return 0;
}

int QueryCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = ctx.client.QUERY(&result); rc != 0) return commandFailed("query", rc);
  printf("seq: %d\n%s", result.seq, result.state.dump().c_str());
  if (!result.authoritative) {
    fflush(stdout);
    fputs("\nWarning: This is a best-effort response\n", stderr);
    return E_BEST_GUESS;
  }
  return 0;
}

}  // namespace qcr
