// Remote commands and copies on one server, for the qcrsh and qcrcp
// personalities (the bodies are in qcr/transfer/remote.h).
#pragma once

#include <functional>
#include <string>

#include "basic/net.h"
#include "qcr/client/client.h"
#include "qcr/transfer/remote.h"

namespace qcr {

// Where a remote exchange failed, for the caller's message.
enum class RemoteStage {
  kNone,
  kLookup,   // the host name did not resolve
  kConnect,  // no connection (or no hello)
  kSend,     // the request or the file did not go out
  kRefused,  // the server answered failed: the result is its reason
  kReply,    // the answer did not arrive or made no sense
  kLocal,    // this machine's file
};

// The server of host: a node of the session's node list named host, else one
// whose address text is host (at its port in the list), else host looked up
// and reached at the session's server port. 0 or the lookup's error.
[[nodiscard]] int remoteHostAddress(const Session& session, const std::string& host,
                                    PeerAddress* addressP);

// Runs request on the server at address. Output arrives through out and err
// (standard output and error of the command, in the order the server sent
// them); *outcomeP gets how the command ended. 0 or the error, *stageP saying
// where it happened.
[[nodiscard]] int RemoteExec(Client& client, const PeerAddress& address,
                             const ShellRequest& request,
                             const std::function<void(const Message&)>& output,
                             ShellOutcome* outcomeP, RemoteStage* stageP);

// Sends the local regular file source to the server at address, to be kept as
// target there (inside it when it is a directory), and waits for the server's
// answer. 0 or the error, *stageP saying where it happened.
[[nodiscard]] int RemoteCopyTo(Client& client, const PeerAddress& address,
                               const std::string& source, const std::string& target,
                               RemoteStage* stageP);

// Fetches the server's regular file source into target (inside it when it is a
// directory), with its permission bits and times. A failed fetch leaves nothing
// under the target name. 0 or the error, *stageP saying where it happened.
[[nodiscard]] int RemoteCopyFrom(Client& client, const PeerAddress& address,
                                 const std::string& source, const std::string& target,
                                 RemoteStage* stageP);

}  // namespace qcr
