// chnodes: a change of the quorum node list, step by step. Each step returns 0 or
// the code that ends the command, after its own message; nothing is rolled back.
// A change that stopped after its intermediate list was committed leaves old
// nodes members and new ones without slots; running the same change again
// completes it, because the commit is skipped when nothing differs, nodes
// without a slot are initialised again (a no-op for an initialised server) and
// slots already held are kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/cmd/context.h"
#include "qcr/cmd/membership.h"

namespace qcr {

class NodeListChange {
 public:
  // items: the -n list; quorumOption: 0, 1 (-W) or 2 (-Q); force: -F.
  NodeListChange(Client& client, std::vector<std::string> items, int quorumOption, bool force);

  // All steps in order, the first failure ending it. The command prologue ran.
  [[nodiscard]] int run();

  // The steps, in this order.
  [[nodiscard]] int fetchCurrent();        // the committed node list and configuration
  [[nodiscard]] int parseNew();            // the -n items against the current list
  void classify();                         // common, added and removed nodes
  [[nodiscard]] int checkQuorum();         // can the new set form a quorum
  [[nodiscard]] int commitIntermediate();  // current, added and still active old nodes
  [[nodiscard]] int initNewServers();      // init to the nodes without a slot
  [[nodiscard]] int assignAndConfigure();  // the slots, as a configuration change
  [[nodiscard]] int commitFinal();         // the list without the removed nodes

 private:
  Client& client_;
  std::vector<std::string> items_;
  int quorumOption_;
  bool force_;
  uint64_t clusterId_ = 0;
  CommittedState state_;  // as fetched: the configuration the change starts from
  NodeList current_;
  NodeList next_;
  NodeChangePlan plan_;
};

}  // namespace qcr
