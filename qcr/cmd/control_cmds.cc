// show, and the server control commands: echo, trace, msglevel and netdown (one
// debug request each), dump and quit. The control commands ask every server of the
// node list (-n, else the local list) in turn, print each answer's text and go on
// after a failure; their result is the first failure's.
#include <cstdio>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/client/control.h"
#include "qcr/client/auth_keys.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/member_lists.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"

namespace qcr {

namespace {

// Waits of the servers' answers.
constexpr int kControlWaitMs = 30000;

struct Target {
  std::string label;  // as the user named it, or the node list's name
  std::string host;
  int32_t port = 0;
};

// A -n item: a node id or name of the local list, else host[:port].
Target targetOf(const std::string& item, const Session& s) {
  for (const NodeEntry& node : s.nodeList) {
    if (item == std::to_string(node.id) || (!node.name.empty() && item == node.name)) {
      return {item, node.addr, node.port};
    }
  }
  const HostPort hp = splitHostPort(item, s.serverPort);
  return {item, hp.host, hp.port};
}

// The session (its security included) and the servers to ask; prints why there
// are none. 0 or the result that ends the command.
int controlTargets(CommandContext& ctx, std::vector<Target>* targetsP) {
  Client& client = ctx.client;
  Session& s = client.repoSession();
  // The local repository is optional when -n names the servers.
  const int ioRc = clientIoInit(&s, ctx.settings.serverPort, kCreateNone, true);
  s.waitMs = kControlWaitMs;
  const int securityMode = readSecurityMode(s.paths.noauthFile);
  ctx.settings.securityMode = securityMode;
  client.security().setSecurityOff(securityMode);
  if (client.security().enabled()) {
    if (const int rc = ClientSecurityInit(client); rc != 0) {
      fprintf(stderr, "security initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  if (!ctx.cmd.nodeList.empty()) {
    for (const std::string& item : ctx.cmd.nodeList) targetsP->push_back(targetOf(item, s));
    return 0;
  }
  if (ioRc == 0 && !s.nodeList.empty()) {
    for (const NodeEntry& node : s.nodeList) {
      targetsP->push_back({node.name.empty() ? node.addr : node.name, node.addr, node.port});
    }
    return 0;
  }
  // No list: a machine that holds a server's state asks its own server.
  if (fileExists(s.paths.paxosFile + ".1") || fileExists(s.paths.paxosFile + ".2")) {
    targetsP->push_back({"localhost", "localhost", s.serverPort});
    return 0;
  }
  if (isDirectory(s.paths.base)) {
    fputs("Not qcr.nodes file and no node list specified (use '-n nodeList' option)\n", stderr);
  } else {
    fputs("Not a server and no node list specified (use '-n nodeList' option)\n", stderr);
  }
  return E_NODES_FILE;
}

using Request = int (*)(Client&, const PeerAddress&, const std::string& name,
                        const StringList& args, ControlAnswer*);

// Sends the request to every target and prints the answers.
int controlEach(CommandContext& ctx, const std::string& name, const StringList& args,
                Request request) {
  std::vector<Target> targets;
  if (const int rc = controlTargets(ctx, &targets); rc != 0) return rc;
  int first = 0;
  for (const Target& t : targets) {
    PeerAddress address;
    int rc = t.port > 0 ? resolve(t.host, t.port, &address) : EINVAL;
    ControlAnswer answer;
    if (rc == 0) rc = request(ctx.client, address, name, args, &answer);
    qcrLog(4, "debug response: err %d type %d (%s) len %d", rc, answer.type,
           msgName(answer.type), static_cast<int>(answer.length));
    if (rc == 0) {
      printf("%.*s\n", static_cast<int>(answer.text.size()), answer.text.c_str());
      fflush(stdout);
    } else if (rc == E_ILL_FORMED_MSG) {
      fputs("bad reply\n", stderr);
    } else {
      fprintf(stderr, "%s %s failed: %s (err %d)\n", name.c_str(), t.label.c_str(), errText(rc),
              rc);
    }
    if (first == 0) first = rc;
  }
  return first;
}

int debugRequest(Client& client, const PeerAddress& address, const std::string& name,
                 const StringList& args, ControlAnswer* answerP) {
  return DEBUG(client, address, DebugRequest{name, args}, answerP);
}
int dumpRequest(Client& client, const PeerAddress& address, const std::string&,
                const StringList&, ControlAnswer* answerP) {
  return DUMP(client, address, answerP);
}
int quitRequest(Client& client, const PeerAddress& address, const std::string&,
                const StringList&, ControlAnswer* answerP) {
  return QUIT(client, address, answerP);
}

std::string idsText(const std::vector<int>& ids) {
  std::string text;
  for (int id : ids) text += (text.empty() ? "" : ", ") + std::to_string(id);
  return "[" + text + "]";
}

}  // namespace

int DebugCommand(CommandContext& ctx) {
  return controlEach(ctx, ctx.cmd.subcommand, ctx.cmd.args, debugRequest);
}

int DumpCommand(CommandContext& ctx) { return controlEach(ctx, "dump", {}, dumpRequest); }

int QuitCommand(CommandContext& ctx) { return controlEach(ctx, "quit", {}, quitRequest); }

// The client's view: who it is, whom it asks first, and the committed state it
// now holds (fetched, so that the view is current).
int ShowCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  Client& client = ctx.client;
  RequestResult result;
  if (const int rc = client.VGET(&result); rc != 0) return commandFailed("show", rc);
  const Session& s = client.repoSession();
  printf("local node: %d %s\n", s.localNodeId,
         s.localNodeAddr.empty() ? "(none)" : s.localNodeAddr.c_str());
  printf("nodes: %s\n", nodeListToString(s.nodeList).c_str());
  printf("server order: %s\n", idsText(client.cache().serverIds).c_str());
  printf("seq: %d\n%s", result.seq, result.state.dump().c_str());
  return 0;
}

}  // namespace qcr
