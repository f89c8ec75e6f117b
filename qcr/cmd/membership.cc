#include "qcr/cmd/membership.h"

#include <algorithm>
#include <set>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/cmd/member_lists.h"
#include "qcr/coding/result.h"
#include "qcr/coding/text.h"

namespace qcr {

namespace {

bool holdsId(const NodeList& list, int32_t id) {
  return std::any_of(list.begin(), list.end(), [id](const NodeEntry& e) { return e.id == id; });
}

const char* statusWord(int status) {
  if (status == kStatusJoined) return "joined";
  return status < kStatusUp ? "down" : "up";
}

const char* trueFalse(bool value) { return value ? "true" : "false"; }

const DiskEntry* findLabel(const DiskList& list, const std::string& label) {
  for (const DiskEntry& d : list) {
    if (d.label == label) return &d;
  }
  return nullptr;
}

}  // namespace

const ConfigNodeEntry* slotEntryOf(const PaxosConfig& config, int32_t id) {
  for (const ConfigNodeEntry& e : config.nodes) {
    if (e.nodeId == id && e.diskSlot >= 0 && e.diskSlot < MaxPaxosSlots) return &e;
  }
  return nullptr;
}

NodeChangePlan classifyNodes(const NodeList& current, const NodeList& next,
                             const PaxosConfig& config) {
  NodeChangePlan plan;
  for (NodeEntry node : next) {
    node.flag = 0;
    const bool known = holdsId(current, node.id);
    if (known) {
      ++plan.nCommon;
    } else {
      plan.added.push_back(node);
    }
    if (!known || slotEntryOf(config, node.id) == nullptr) plan.initTargets.push_back(node);
    plan.intermediate.push_back(node);
  }
  for (NodeEntry node : current) {
    if (holdsId(next, node.id)) continue;
    if (slotEntryOf(config, node.id) == nullptr) {
      ++plan.nOldInactive;
      continue;
    }
    ++plan.nOldActive;
    node.flag = kNodeRemoved;
    plan.intermediate.push_back(node);
  }
  const int nAdded = static_cast<int>(plan.added.size());
  QCR_ASSERT(static_cast<int>(current.size()) ==
             plan.nCommon + plan.nOldActive + plan.nOldInactive);
  QCR_ASSERT(static_cast<int>(next.size()) == plan.nCommon + nAdded);
  QCR_ASSERT(static_cast<int>(plan.intermediate.size()) ==
             plan.nCommon + nAdded + plan.nOldActive);
  return plan;
}

int requiredQuorum(const PaxosConfig& config, int nNew, int quorumOption) {
  if (!config.disks.empty()) return std::max(config.minNodes, 1);
  if (quorumOption == 1) return nNew / 2;
  if (quorumOption == 2) return 1;
  return nNew / 2 + 1;
}

int evaluateQuorum(const NodeList& intermediate, const NodeList& next,
                   const std::map<int32_t, int>& statusById, int required, std::string* msgP) {
  auto statusOf = [&statusById](int32_t id) {
    const auto it = statusById.find(id);
    return it == statusById.end() ? 0 : it->second;
  };
  const bool joinedRule =
      std::any_of(intermediate.begin(), intermediate.end(),
                  [&](const NodeEntry& e) { return statusOf(e.id) == kStatusJoined; });
  int nServing = 0;
  int nJoined = 0;
  for (const NodeEntry& node : next) {
    const int status = statusOf(node.id);
    if (status >= kStatusUp) ++nServing;
    if (status == kStatusJoined) ++nJoined;
    qcrLog(4, "verifyQuorum: node %s status %d nNewServing %d nNewJoined %d",
           node.toString().c_str(), status, nServing, nJoined);
  }
  if ((joinedRule ? nJoined : nServing) >= required) return E_OK;
  appendFormat(msgP, "No %s quorum in new node set (%d of %d nodes are %s; %d are required):\n",
               joinedRule ? "KLFS" : "QCR", joinedRule ? nJoined : nServing,
               static_cast<int>(next.size()), joinedRule ? "joined" : "up", required);
  for (const NodeEntry& node : next) {
    appendFormat(msgP, "  %-6s %s (%s)\n", statusWord(statusOf(node.id)), node.name.c_str(),
                 node.addr.c_str());
  }
  return E_NO_QUORUM;
}

std::vector<ConfigNodeEntry> assignSlots(const NodeList& intermediate, const PaxosConfig& config,
                                         int32_t configVersion) {
  bool slotUsed[MaxPaxosSlots] = {};
  for (const NodeEntry& node : intermediate) {
    const ConfigNodeEntry* held = slotEntryOf(config, node.id);
    if (held != nullptr && (node.flag & kNodeRemoved) == 0) slotUsed[held->diskSlot] = true;
  }
  std::vector<ConfigNodeEntry> slots;
  int nextSlot = 0;
  for (const NodeEntry& node : intermediate) {
    if ((node.flag & kNodeRemoved) != 0) continue;
    if (static_cast<int>(slots.size()) >= MaxPaxosSlots) break;
    if (const ConfigNodeEntry* held = slotEntryOf(config, node.id); held != nullptr) {
      QCR_ASSERT(slotUsed[held->diskSlot]);
      slots.push_back({node.id, held->diskSlot, held->version, true});
      continue;
    }
    while (nextSlot < MaxPaxosSlots && slotUsed[nextSlot]) ++nextSlot;
    // Every slot is held by a node listed later, which keeps it.
    if (nextSlot >= MaxPaxosSlots) continue;
    slotUsed[nextSlot] = true;
    slots.push_back({node.id, nextSlot, configVersion + 1, true});
    ++nextSlot;
  }
  return slots;
}

NodeList withoutRemoved(const NodeList& intermediate, bool* anyRemovedP) {
  NodeList kept;
  *anyRemovedP = false;
  for (const NodeEntry& node : intermediate) {
    if ((node.flag & kNodeRemoved) != 0) {
      *anyRemovedP = true;
    } else {
      kept.push_back(node);
    }
  }
  return kept;
}

PaxosDblockSummary initialDblock(const CommittedState& state) {
  PaxosDblockSummary dblock;
  dblock.committed.config = state.config;
  dblock.committed.configVersion = state.configVersion;
  return dblock;
}

DiskChangePlan planDisks(const DiskList& current, const DiskList& parsed) {
  DiskChangePlan plan;
  int32_t maxId = 0;
  for (const DiskEntry& d : current) maxId = std::max(maxId, d.id);
  for (DiskEntry disk : parsed) {
    disk.old = 0;
    if (const DiskEntry* known = findLabel(current, disk.label); known != nullptr) {
      disk.id = known->id;
    } else {
      disk.id = ++maxId;
      plan.added.push_back(disk);
    }
    plan.next.push_back(disk);
    plan.cfgDisks.push_back(disk.id);
  }
  for (DiskEntry disk : current) {
    disk.old = findLabel(plan.next, disk.label) == nullptr ? 1 : 0;
    plan.unionList.push_back(disk);
  }
  plan.unionList.insert(plan.unionList.end(), plan.added.begin(), plan.added.end());
  for (const DiskEntry& disk : plan.unionList) {
    if (disk.old == 0) plan.finalList.push_back(disk);
  }
  plan.unchanged = plan.unionList == current;
  return plan;
}

std::string nodeAddressText(const NodeEntry& node) {
  const bool v6 = node.addr.find(':') != std::string::npos;
  return strCat({v6 ? "[" : "", node.addr, v6 ? "]:" : ":", std::to_string(node.port)});
}

std::string diskListToString(const DiskList& disks) {
  return listToString(disks, [](const DiskEntry& d) {
    return strCat({"d", std::to_string(d.id), d.old != 0 ? " old '" : " '", d.label, "'"});
  });
}

std::string idListToString(const std::vector<int32_t>& ids) {
  return listToString(ids, [](int32_t id) { return std::to_string(id); });
}

std::string nodeListing(const NodeList& nodes, const PaxosConfig& config, bool machineReadable) {
  std::string out = machineReadable
                        ? "nodeId:nodeName:diskSlot:version:active:listen:ip:port\n"
                        : " node  slot version active listen  address                name\n"
                          "----- ----- ------- ------ ------  ---------------------  "
                          "-----------------------\n";
  for (const NodeEntry& node : nodes) {
    const ConfigNodeEntry* e = slotEntryOf(config, node.id);
    const int slot = e != nullptr ? e->diskSlot : -1;
    const int version = e != nullptr ? e->version : 0;
    const char* active = trueFalse(e != nullptr);
    const char* listen = trueFalse(e != nullptr && e->listen);
    const std::string address = nodeAddressText(node);
    if (machineReadable) {
      appendFormat(&out, "%d:%s:%d:%d:%s:%s:%s\n", node.id, node.name.c_str(), slot, version,
                   active, listen, address.c_str());
    } else {
      appendFormat(&out, "%5d %5d %7d %6s %6s  %-22s %s\n", node.id, slot, version, active, listen,
                   address.c_str(), node.name.c_str());
    }
  }
  return out;
}

std::string diskListing(const DiskList& disks, const PaxosConfig& config, bool machineReadable) {
  DiskList sorted = disks;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const DiskEntry& a, const DiskEntry& b) { return a.id < b.id; });
  std::string out = machineReadable ? "diskId:diskLabel:diskType:status:minQuorumNodes\n"
                                    : "disk status type        label                           \n"
                                      "----- ------ ----------- --------------------------------\n";
  for (const DiskEntry& disk : sorted) {
    const bool active =
        std::find(config.disks.begin(), config.disks.end(), disk.id) != config.disks.end();
    const char* status = active ? "active" : disk.old != 0 ? "old" : "stdby";
    std::string label = disk.label;
    std::string type;
    if (isValidDiskLabel(disk.label)) {
      const size_t colon = disk.label.find(':');
      label = disk.label.substr(0, colon);
      type = colon == std::string::npos ? "generic" : disk.label.substr(colon + 1);
    } else {
      type = !disk.label.empty() && disk.label[0] == '/' ? "file" : "unknown";
    }
    if (machineReadable) {
      appendFormat(&out, "%d:%s:%s:%s:%d\n", disk.id, label.c_str(), type.c_str(), status,
                   config.minNodes);
      continue;
    }
    appendFormat(&out, "%5d %-6s %-11s %s\n", disk.id, status, type.c_str(), label.c_str());
    // Repeated after every disk line: that is how the listing looks.
    if (config.minNodes > 1) appendFormat(&out, "\nminQuorumNodes: %d\n", config.minNodes);
  }
  return out;
}

}  // namespace qcr
