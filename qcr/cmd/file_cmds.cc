// flist, fget, fput, fdel and query: the named files and the state of the
// repository.
#include <cerrno>
#include <cstdio>

#include "basic/file_status.h"
#include "basic/files.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/progress.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_names.h"

namespace qcr {

namespace {

// name with its control characters written as escapes, for a message line.
std::string printable(const std::string& name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      text += "\\n";
    } else if (byte < 0x20 || byte == 0x7F) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", byte);
      text += hex;
    } else {
      text += c;
    }
  }
  return text;
}

// A name no server takes is refused before any server is asked: retrying it
// elsewhere could only fail again. 0, or EINVAL after the message.
int checkFileName(const std::string& name) {
  if (isRepositoryFileName(name)) return 0;
  fprintf(stderr,
          "'%s' is not a valid file name: it must not be empty, hold '/' or control "
          "characters, or be too long\n",
          printable(name).c_str());
  return EINVAL;
}

}  // namespace

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
  if (const int rc = checkFileName(name); rc != 0) return rc;
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  RequestResult result;
  const ProgressOnTerminal progress(ctx.client, "fget " + name);
  if (const int rc = ctx.client.FGET(name, localPath, condVersion, &result); rc != 0) {
    return commandFailed("get file", rc);
  }
  const auto iter = result.state.files.find(result.fid);
  printf("fget:%d\n", iter == result.state.files.end() ? -1 : iter->second.version);
  return 0;
}

int FputCommand(CommandContext& ctx, const std::string& name, const std::string& localPath,
                int32_t newVersion, int32_t condVersion) {
  if (const int rc = checkFileName(name); rc != 0) return rc;
  // Only a regular file has a size to announce: a device or a pipe would stream,
  // and opening a pipe would wait for a writer.
  FileStatus before;
  const bool exists = fileStatus(localPath, &before) == 0;
  if (exists && !before.regular) {
    fprintf(stderr, "'%s' is not a regular file\n", localPath.c_str());
    return EINVAL;
  }
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  if (!fileExists(localPath)) {
    fprintf(stderr, "'%s' does not exist\n", localPath.c_str());
    return E_NO_FILE;
  }
  RequestResult result;
  const ProgressOnTerminal progress(ctx.client, "fput " + name);
  if (const int rc = ctx.client.FPUT(name, localPath, newVersion, condVersion, 0, &result);
      rc != 0) {
    // The sender stops when the file does not hold the size it announced.
    FileStatus after;
    if (rc == EINVAL && exists && fileStatus(localPath, &after) == 0 && after.size != before.size) {
      fprintf(stderr, "'%s' changed size while it was sent (%lld bytes before, %lld now)\n",
              localPath.c_str(), static_cast<long long>(before.size),
              static_cast<long long>(after.size));
    }
    return commandFailed("fput", rc);
  }
  return 0;
}

int FdelCommand(CommandContext& ctx, const std::string& name, int32_t condVersion) {
  if (const int rc = checkFileName(name); rc != 0) return rc;
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
