// A small synchronous client of QCR servers: the requests of the tool, sent with
// the same bodies and read back the same way, over connections opened like the
// tool's. qcrd's cluster initialisation uses it, and so do the end-to-end tests.
//
// Each request tries the servers in turn (the last server that answered first),
// moving on after a connection failure or an answer of 808, until it gets a final
// answer or its time budget is spent. Results: 0; the server's final answer
// (804-807, 809, 816, 819, ...); 823 when no server could be reached; 801 when
// servers were reached but none answered finally.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "basic/net.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/peer_link.h"

namespace qcr {

class RepoClient final {
 public:
  RepoClient(std::vector<PeerAddress> servers, double budgetSeconds);

  [[nodiscard]] int vget(SeqCommitReply* replyP);
  [[nodiscard]] int vput(const std::string& name, const std::string& value, int32_t newVersion = -1,
                         int32_t condVersion = -1);
  [[nodiscard]] int vdel(const std::string& name, int32_t condVersion = -1);
  [[nodiscard]] int query(SeqCommitQueryReply* replyP);
  [[nodiscard]] int fput(const std::string& name, const std::string& localPath,
                         int32_t newVersion = -1, int32_t condVersion = -1);
  [[nodiscard]] int fget(const std::string& name, const std::string& localPath,
                         int32_t condVersion, SeqCommitFgetReply* replyP);
  [[nodiscard]] int flist(SeqCommitFlistReply* replyP);
  [[nodiscard]] int fdel(const std::string& name, int32_t condVersion = -1);
  [[nodiscard]] int config(const ConfigRequest& req);
  // Stores the archive of the repository at localPath.
  [[nodiscard]] int backup(const std::string& localPath, bool compress, BackupReply* replyP);

  // Sends init to server index (no retry): 0 or the server's or connection's error.
  [[nodiscard]] int init(size_t index, const InitRequest& req);
  // The status a server reports (its first VarUInt): 0 or an error.
  [[nodiscard]] int status(size_t index, int* statusP);

  // The state that came with the last seq_commit-style answer.
  const CommittedState& lastState() const { return lastState_; }

 private:
  using Exchange = std::function<int(Connection& conn)>;
  int run(const char* what, const Exchange& exchange);
  int finish(const Message& reply);
  int change(int type, const std::vector<uint8_t>& body, const std::string& uploadPath,
             int64_t uploadSize);

  std::vector<PeerAddress> servers_;
  double budget_;
  size_t first_ = 0;
  int32_t lastSeq_ = -1;
  CommittedState lastState_;
};

}  // namespace qcr
