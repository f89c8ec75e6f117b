// lsdisks, chdisks and config: the tiebreaker disks and the minimum number of
// quorum nodes.
#include <cstdio>

#include "basic/log.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/member_lists.h"
#include "qcr/cmd/member_requests.h"
#include "qcr/cmd/membership.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/data/shared_disks.h"

namespace qcr {

namespace {

// What chdisks was asked for: -d counts 1, -m 2 (diskOptionMask).
constexpr int kModeDisks = 1;
constexpr int kModeMinNodes = 2;

int modeOf(uint32_t mask) {
  return static_cast<int>(mask & 1) | (mask >= 2 ? kModeMinNodes : 0);
}

class DiskListChange {
 public:
  DiskListChange(CommandContext& ctx) : ctx_(ctx), mode_(modeOf(ctx.cmd.diskOptionMask)) {}

  [[nodiscard]] int run() {
    int rc = fetchCurrent();
    if (rc == 0) rc = parseNew();
    if (rc == 0) rc = checkMinNodes();
    if (rc != 0) return rc;
    if (mode_ == kModeMinNodes) return changeMinNodesOnly();
    rc = initAddedDisks();
    if (rc == 0) rc = commitUnion();
    if (rc == 0) rc = configure();
    if (rc == 0) rc = commitFinal();
    return rc;
  }

 private:
  int fetchCurrent() { return getCurrentDiskList(ctx_.client, &clusterId_, &state_, &current_); }

  int parseNew() {
    if ((mode_ & kModeDisks) == 0) return 0;
    const std::string& dir = ctx_.cmd.disksDir;
    if (!dir.empty() && dir[0] != '/') {
      fprintf(stderr, "Invalid disk directory '%s': not an absolute path\n", dir.c_str());
      return EINVAL;
    }
    std::string messages;
    const int rc = parseDiskList(ctx_.cmd.diskList, dir, &parsed_, &messages);
    fputs(messages.c_str(), stderr);
    return rc;
  }

  int checkMinNodes() {
    int nDisks = static_cast<int>(parsed_.size());
    minNodes_ = ctx_.cmd.minQuorumNodes;
    if (mode_ == kModeMinNodes) {
      nDisks = static_cast<int>(state_.config.disks.size());
    } else if (mode_ == kModeDisks) {
      minNodes_ = parsed_.empty() ? 1 : state_.config.minNodes;
    }
    std::string messages;
    const int nNodes = static_cast<int>(ctx_.client.repoSession().nodeList.size());
    const int rc = checkMinQuorumNodes(nNodes, nDisks, &minNodes_, &messages);
    fputs(messages.c_str(), stderr);
    return rc;
  }

  int changeMinNodesOnly() {
    if (minNodes_ == state_.config.minNodes) {
      qcrLog(4, "Passed minQuorumNodes equal stored value (%d)", minNodes_);
      return 0;
    }
    ConfigChange change;
    change.config.minNodes = minNodes_;
    CommittedState after;
    return updateConfig(ctx_.client, change, state_.configVersion, 0, &after);
  }

  int initAddedDisks() {
    plan_ = planDisks(current_, parsed_);
    qcrLog(4, "curDisks: %s", diskListToString(current_).c_str());
    qcrLog(4, "newDisks: %s", diskListToString(plan_.next).c_str());
    qcrLog(4, "addedDisks: %s", diskListToString(plan_.added).c_str());
    if (plan_.added.empty()) return 0;
    fputs("qcr shared disks to be initialized:\n", stdout);
    for (const DiskEntry& disk : plan_.added) printf("%d %s\n", disk.id, disk.label.c_str());
    fflush(stdout);
    const int rc = InitSharedDisks(ctx_.client.repoSession().nodeList, plan_.added,
                                   initialDblock(state_), MaxPaxosSlots, clusterId_);
    if (rc != 0) fprintf(stderr, "disk initialization failed (err %d)\n", rc);
    return rc;
  }

  int commitUnion() {
    committed_ = current_;
    if (plan_.unchanged) return 0;
    const int rc = commitDiskList(ctx_.client, plan_.unionList);
    if (rc != 0) {
      fprintf(stderr, "disk list commit failed (err %d)\n", rc);
      return rc;
    }
    committed_ = plan_.unionList;
    return 0;
  }

  int configure() {
    qcrLog(4, "cfgDiskList %s\n", idListToString(plan_.cfgDisks).c_str());
    ConfigChange change;
    change.setDisks = true;
    change.config.disks = plan_.cfgDisks;
    change.config.minNodes = minNodes_;
    return updateConfig(ctx_.client, change, state_.configVersion, 0, &after_);
  }

  int commitFinal() {
    // The list committed before already holds no old disk: nothing to drop.
    if (plan_.finalList != committed_) {
      const int rc = commitDiskList(ctx_.client, plan_.finalList);
      if (rc != 0) {
        fprintf(stderr, "disk list commit failed (err %d)\n", rc);
        return rc;
      }
    }
    qcrLog(4, "new config: %s", after_.config.toString().c_str());
    return 0;
  }

  CommandContext& ctx_;
  const int mode_;
  uint64_t clusterId_ = 0;
  CommittedState state_;
  CommittedState after_;
  DiskList current_;
  DiskList parsed_;
  DiskList committed_;
  DiskChangePlan plan_;
  int32_t minNodes_ = 1;
};

}  // namespace

int printDiskListing(CommandContext& ctx) {
  uint64_t clusterId = 0;
  CommittedState state;
  DiskList disks;
  if (const int rc = getCurrentDiskList(ctx.client, &clusterId, &state, &disks); rc != 0) {
    return rc;
  }
  fputs(diskListing(disks, state.config, ctx.settings.machineReadable).c_str(), stdout);
  return 0;
}

int ChDisksCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, true); rc != 0) return rc;
  DiskListChange change(ctx);
  return change.run();
}

int LsDisksCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  return printDiskListing(ctx);
}

int ConfigCommand(CommandContext& ctx) {
  if (const int rc = CommandPrologue(ctx, false); rc != 0) return rc;
  if (const int rc = printNodeListing(ctx); rc != 0) return rc;
  fputs("\n", stdout);
  return printDiskListing(ctx);
}

}  // namespace qcr
