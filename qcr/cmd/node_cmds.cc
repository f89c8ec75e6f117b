// lsnodes and chnodes: the quorum node list of the repository.
#include <cstdio>

#include "basic/log.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/member_lists.h"
#include "qcr/cmd/member_requests.h"
#include "qcr/cmd/node_change.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"

namespace qcr {

NodeListChange::NodeListChange(Client& client, std::vector<std::string> items, int quorumOption,
                               bool force)
    : client_(client), items_(std::move(items)), quorumOption_(quorumOption), force_(force) {}

int NodeListChange::run() {
  int rc = fetchCurrent();
  if (rc == 0) rc = parseNew();
  if (rc != 0) return rc;
  classify();
  rc = checkQuorum();
  if (rc == 0) rc = commitIntermediate();
  if (rc == 0) rc = initNewServers();
  if (rc == 0) rc = assignAndConfigure();
  if (rc == 0) rc = commitFinal();
  return rc;
}

int NodeListChange::fetchCurrent() {
  const int rc = getCurrentNodeList(client_, &clusterId_, &state_, &current_);
  if (rc != 0) return rc;
  qcrLog(4, "cid %llu old nodes: %s", static_cast<unsigned long long>(clusterId_),
         nodeListToString(current_).c_str());
  return 0;
}

int NodeListChange::parseNew() {
  std::string messages;
  const int rc = parseNodeList(items_, current_, client_.repoSession().serverPort,
                               resolveHostAddress, &next_, &messages);
  fputs(messages.c_str(), stderr);
  return rc;
}

void NodeListChange::classify() {
  plan_ = classifyNodes(current_, next_, state_.config);
  qcrLog(4, "new nodes: %s", nodeListToString(plan_.intermediate).c_str());
  qcrLog(4, "added nodes: %s", nodeListToString(plan_.added).c_str());
}

int NodeListChange::checkQuorum() {
  const int required =
      requiredQuorum(state_.config, static_cast<int>(next_.size()), quorumOption_);
  qcrLog(4, "quorumOption: %d newQuorum: %d", quorumOption_, required);
  const int rc = verifyQuorum(client_, plan_.intermediate, next_, required);
  if (rc == 0 || !force_) return rc;
  fputs("Continuing due to -F override\n", stderr);
  return 0;
}

int NodeListChange::commitIntermediate() {
  if (plan_.intermediate == current_) return 0;
  int rc = commitNodeList(client_, plan_.intermediate, quorumOption_);
  if (rc != 0) {
    fprintf(stderr, "node list commit failed (err %d)\n", rc);
    return rc;
  }
  rc = client_.storeLocalNodeList(plan_.intermediate);
  if (rc != 0) fprintf(stderr, "failed to save new node list (err %d)\n", rc);
  return rc;
}

int NodeListChange::initNewServers() {
  if (plan_.initTargets.empty()) return 0;
  const PaxosDblockSummary dblock = initialDblock(state_);
  qcrLog(4, "dblk: %s", dblock.toString().c_str());
  const int rc = initServers(client_, clusterId_, plan_.initTargets, plan_.intermediate, dblock);
  if (rc != 0) fprintf(stderr, "server initialization failed (err %d)\n", rc);
  return rc;
}

int NodeListChange::assignAndConfigure() {
  ConfigChange change;
  change.setNodes = true;
  change.config.nodes = assignSlots(plan_.intermediate, state_.config, state_.configVersion);
  CommittedState after;
  const int rc = updateConfig(client_, change, state_.configVersion, quorumOption_, &after);
  if (rc != 0) return rc;
  qcrLog(4, "new config: %s", after.config.toString().c_str());
  return 0;
}

int NodeListChange::commitFinal() {
  bool anyRemoved = false;
  const NodeList final = withoutRemoved(plan_.intermediate, &anyRemoved);
  if (!anyRemoved) return 0;
  int rc = commitNodeList(client_, final, quorumOption_);
  if (rc != 0) {
    fprintf(stderr, "node list commit failed (err %d)\n", rc);
    return rc;
  }
  rc = client_.storeLocalNodeList(final);
  if (rc != 0) fprintf(stderr, "failed to save new node list  (err %d)\n", rc);
  return rc;
}

int printNodeListing(CommandContext& ctx) {
  uint64_t clusterId = 0;
  CommittedState state;
  NodeList nodes;
  if (const int rc = getCurrentNodeList(ctx.client, &clusterId, &state, &nodes); rc != 0) {
    return rc;
  }
  fputs(nodeListing(nodes, state.config, ctx.settings.machineReadable).c_str(), stdout);
  return 0;
}

int ChNodesCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  NodeListChange change(ctx.client, ctx.cmd.nodeList, ctx.cmd.nodeChangeMode, ctx.cmd.force);
  return change.run();
}

int LsNodesCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  return printNodeListing(ctx);
}

}  // namespace qcr
