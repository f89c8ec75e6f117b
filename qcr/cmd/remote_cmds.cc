// The remote work of the qcrsh and qcrcp personalities: the command prologue,
// then one exchange per host or per source (qcr/client/remote.h), each failure
// reported in one line on standard error.
//
// qcrsh's result, which becomes its exit status: 0 when the command exited 0;
// its exit code when it exited otherwise; 128 + the signal when one ended it;
// kNoAnswerStatus when the node could not be reached, refused the command or
// answered nothing usable. qcrcp's: 0, or the error of the last copy that failed
// (kNoAnswerStatus for one that does not fit an exit status, so that it never
// reads as the usage error 1).
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/client/remote.h"
#include "qcr/cmd/context.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/progress.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"

namespace qcr {
namespace {

constexpr int kNoAnswerStatus = 255;
constexpr int kSignalStatusBase = 128;

int remotePrologue(Client& client, const char* programName) {
  CommandLine cmd;
  ProgramSettings settings;
  settings.programName = programName;
  CommandContext ctx{cmd, settings, client};
  return CommandPrologue(ctx, false);
}

// Reports a failed exchange with host in the words of program ("qcrsh", "qcrcp").
void reportFailure(const char* program, const std::string& host, int rc, RemoteStage stage) {
  switch (stage) {
    case RemoteStage::kLookup:
      qcrLog(0, "%s: unknown host '%s'", program, host.c_str());
      break;
    case RemoteStage::kConnect:
      qcrLog(0, "%s: connect to %s failed (err %d)", program, host.c_str(), rc);
      break;
    case RemoteStage::kSend:
      qcrLog(0, "%s: send to %s failed (err %d)", program, host.c_str(), rc);
      break;
    case RemoteStage::kRefused:
      qcrLog(0, "%s: %s refused: %s (err %d)", program, host.c_str(), errText(rc), rc);
      break;
    case RemoteStage::kReply:
      if (rc == E_ILL_FORMED_MSG) {
        qcrLog(0, "%s: bad reply from %s", program, host.c_str());
      } else {
        qcrLog(0, "%s: no reply from %s (err %d)", program, host.c_str(), rc);
      }
      break;
    case RemoteStage::kLocal:
    case RemoteStage::kNone:
      break;
  }
}

void printOutput(const Message& reply) {
  FILE* const stream = reply.type == MSG_TYPE_REPLY_STDOUT ? stdout : stderr;
  fwrite(reply.body.data(), 1, reply.body.size(), stream);
  fflush(stream);
}

// The result of running command on host.
int shellOnHost(Client& client, const std::string& host, const ShellRequest& request) {
  PeerAddress address;
  RemoteStage stage = RemoteStage::kLookup;
  int rc = remoteHostAddress(client.repoSession(), host, &address);
  ShellOutcome outcome;
  if (rc == 0) rc = RemoteExec(client, address, request, printOutput, &outcome, &stage);
  if (rc != 0) {
    reportFailure("qcrsh", host, rc, stage);
    return kNoAnswerStatus;
  }
  if (outcome.signal != -1) {
    qcrLog(0, "child killed by signal %d", outcome.signal);
    return outcome.signal > 0 && outcome.signal < kNoAnswerStatus - kSignalStatusBase
               ? kSignalStatusBase + outcome.signal
               : kNoAnswerStatus;
  }
  if (outcome.exitCode != 0) {
    qcrLog(0, "child returned exit code %d", outcome.exitCode);
    return outcome.exitCode > 0 && outcome.exitCode <= 255 ? outcome.exitCode : kNoAnswerStatus;
  }
  return 0;
}

// Reports a local file's failure for qcrcp.
void reportLocal(const std::string& path, int rc) {
  if (rc == EINVAL) {
    qcrLog(0, "%s: not a regular file", path.c_str());
  } else {
    qcrLog(0, "qcrcp: %s: %s (err %d)", path.c_str(), errText(rc), rc);
  }
}

int copyOne(Client& client, const CopyEndpoint& source, const CopyEndpoint& target) {
  const CopyEndpoint& remote = target.isRemote() ? target : source;
  PeerAddress address;
  RemoteStage stage = RemoteStage::kLookup;
  int rc = remoteHostAddress(client.repoSession(), remote.host, &address);
  if (rc == 0) {
    const ProgressOnTerminal progress(client, "qcrcp " + source.path);
    rc = target.isRemote() ? RemoteCopyTo(client, address, source.path, target.path, &stage)
                           : RemoteCopyFrom(client, address, source.path, target.path, &stage);
  }
  if (rc == 0) return 0;
  if (stage == RemoteStage::kLocal) {
    reportLocal(target.isRemote() ? source.path : target.path, rc);
  } else if (stage == RemoteStage::kSend && !target.isRemote()) {
    qcrLog(0, "qcrcp: cp_from request to %s failed (err %d)", remote.host.c_str(), rc);
  } else {
    reportFailure("qcrcp", remote.host, rc, stage);
  }
  return rc;
}

}  // namespace

int RemoteShell(const std::string& host, const RemoteCommand& command) {
  Client client;
  if (remotePrologue(client, "qcrsh") != 0) return kNoAnswerStatus;
  const ShellRequest request{command.assignments, command.argv};
  int status = 0;
  // "a,b" names two hosts, asked in turn; the last failure decides.
  size_t from = 0;
  while (from <= host.size()) {
    size_t comma = host.find(',', from);
    if (comma == std::string::npos) comma = host.size();
    const std::string one = host.substr(from, comma - from);
    if (!one.empty()) {
      if (const int rc = shellOnHost(client, one, request); rc != 0) status = rc;
    }
    from = comma + 1;
  }
  return status;
}

int RemoteCopy(const std::vector<CopyEndpoint>& sources, const CopyEndpoint& target) {
  Client client;
  int result = remotePrologue(client, "qcrcp");
  if (result == 0) {
    // Every source is tried; the last failure decides.
    for (const CopyEndpoint& source : sources) {
      if (const int rc = copyOne(client, source, target); rc != 0) result = rc;
    }
  }
  return result > 0 && result < kNoAnswerStatus ? result : (result == 0 ? 0 : kNoAnswerStatus);
}

}  // namespace qcr
