// Client session initialisation and the prologue of every repository command.
//
// clientIoInit settles a client's session (qcr/client/session.h): the server
// port, the base directory and the paths derived from it, the node and disk lists
// and which node, if any, is this machine. Two layouts: the product build keeps
// the repository in /var/vyfs/qcr; the test build in QCR_BASE when set, else in
// /tmp/qcr for the built-in port and /tmp/qcr.<port> for any other, so that
// several servers on one machine each have their own tree.
#pragma once

#include <string>

#include "qcr/client/session.h"
#include "qcr/cmd/context.h"

namespace qcr {

inline constexpr char kProductDir[] = "/var/vyfs";

// How clientIoInit treats the repository directories.
inline constexpr int kCreateNone = 0;     // use them as they are; missing ones fail
inline constexpr int kCreateMissing = 1;  // create missing ones
inline constexpr int kCreateNew = 2;      // a new base directory; refuse an existing one
                                          // (above 2: remove an existing one first)

// What the check command records of the initialisation. Severity: 0 OK, 1 INFO,
// 2 WARNING, 3 FATAL.
class SessionCheckRecord {
 public:
  virtual ~SessionCheckRecord() = default;
  virtual void recordError(int code, const std::string& message, const std::string& failedEntity,
                           int severity) = 0;
  virtual void recordSuccess(const std::string& entity, const std::string& detail) = 0;
};

// The server port: port when it is 1 or more, else QCR_PORT when set, else 1191.
int chooseServerPort(int port);

// Settles *sessionP for a run. port is the -P value (below 1: not given);
// quiet lowers missing directories to error level. A check record, when given,
// receives an entry for every directory and list file tested, and a missing cached
// directory is then left for the check to report instead of created. Returns 0 or an
// error: 811 for a missing directory in kCreateNone, 821 when one cannot be
// created, the interface list's or the node list's error. A missing product
// directory, or an existing base directory in kCreateNew, ends the process with
// status 1.
[[nodiscard]] int clientIoInit(Session* sessionP, int port, int createMode, bool quiet,
                               SessionCheckRecord* checkRecord = nullptr);

// The security-off value kept in the security mode file at path: its first four
// bytes in this machine's byte order; 0 when the file is missing or shorter.
int readSecurityMode(const std::string& path);

// The prologue of a repository command: initialises the client's session (port
// from ctx.settings), its security switch (from the security mode file,
// overriding -a, which ctx.settings then records) and the Paxos client, with
// update set for commands that change the repository. Prints why it failed on
// standard error and returns the result that ends the command, or 0. With a
// check record the initialisation and security failures are recorded instead of
// printed.
[[nodiscard]] int CommandPrologue(CommandContext& ctx, bool update,
                                  SessionCheckRecord* checkRecord = nullptr);

// Prints "<what> failed: <error text> (err <rc>)" on standard error for a
// repository request that failed, and returns rc to end the command with.
[[nodiscard]] int commandFailed(const char* what, int rc);

}  // namespace qcr
