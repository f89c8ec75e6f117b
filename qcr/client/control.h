// Requests to one server that control or examine it: ping, debug (echo, trace,
// msglevel, netdown), dump, quit and check. Each opens a connection of its own to
// the server at address (with the client's cluster id, security and waits), sends
// one request, reads one answer and gives the connection back; there is no retry.
// Each returns 0 or the connection's error, the server's refusal (from a failed
// answer), or 818 (E_ILL_FORMED_MSG) for an answer that is not the expected one.
#pragma once

#include <string>
#include <vector>

#include "basic/net.h"
#include "qcr/client/client.h"
#include "qcr/comm/control_bodies.h"

namespace qcr {

// ping (36): the server answers ok.
[[nodiscard]] int PING(Client& client, const PeerAddress& address);

// The text of an ok answer to debug, dump or quit, or why there is none.
struct ControlAnswer {
  int type = -1;       // the answer's message type (-1 when none arrived)
  size_t length = 0;   // its body length
  std::string text;    // the body of an ok answer
};

// debug (2) with command and words; dump (3) and quit (31) with an empty body.
[[nodiscard]] int DEBUG(Client& client, const PeerAddress& address, const DebugRequest& request,
                        ControlAnswer* answerP);
[[nodiscard]] int DUMP(Client& client, const PeerAddress& address, ControlAnswer* answerP);
[[nodiscard]] int QUIT(Client& client, const PeerAddress& address, ControlAnswer* answerP);

// check (37) with flags (kCheckFiles, kCheckDisks).
[[nodiscard]] int CHECK(Client& client, const PeerAddress& address, int32_t flags,
                        CheckReply* replyP);

}  // namespace qcr
