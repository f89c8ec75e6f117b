#include "qcr/server/apply.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>

#include "basic/log.h"
#include "qcr/coding/result.h"

namespace qcr {

int32_t findFile(const FileNames& names, const std::string& name) {
  const int32_t reserved = reservedObjId(name);
  if (reserved != 0) return reserved;
  for (const auto& [objId, known] : names) {
    if (known == name) return objId;
  }
  return 0;
}

int32_t newFileId(const CommittedState& state, const std::string& name, int32_t usedMax) {
  const int32_t reserved = reservedObjId(name);
  if (reserved != 0) return reserved;
  int32_t id = std::max(kFirstUserObjId, usedMax + 1);
  if (!state.files.empty()) id = std::max(id, state.files.rbegin()->first + 1);
  return id;
}

int checkCondition(bool exists, int32_t stored, int32_t condVersion) {
  if (condVersion < 0) return E_OK;
  return condVersion == (exists ? stored : 0) ? E_OK : E_VERSION_MISMATCH;
}

int chooseVersion(int32_t base, int32_t newVersion, int32_t* versionP) {
  if (newVersion < 0) {
    if (base == std::numeric_limits<int32_t>::max()) return E_INVALID_VERSION;
    *versionP = base + 1;
    return E_OK;
  }
  if (newVersion <= base) return E_INVALID_VERSION;
  *versionP = newVersion;
  return E_OK;
}

namespace {

// The version a put of a value or file gets: its condition must hold against
// the stored version (0 when absent), and the new version is chosen above the
// stored one, or above the highest deleted one for a new name.
int putVersion(bool exists, int32_t stored, int32_t maxDeleted, int32_t condVersion,
               int32_t newVersion, int32_t* versionP) {
  const int rc = checkCondition(exists, stored, condVersion);
  if (rc != E_OK) return rc;
  return chooseVersion(exists ? stored : maxDeleted, newVersion, versionP);
}

}  // namespace

int makeValuePut(const CommittedState& state, const VputRequest& req, ProposedUpdate* updP) {
  if (req.name.empty()) return EINVAL;
  const auto it = state.values.find(req.name);
  int32_t version = 0;
  const bool exists = it != state.values.end();
  const int rc = putVersion(exists, exists ? it->second.version : 0,
                            state.maxDeletedValueVersion, req.condVersion, req.newVersion,
                            &version);
  if (rc != E_OK) return rc;
  *updP = ProposedUpdate{};
  updP->kind = UpdateKind::ValuePut;
  updP->param = version;
  updP->name = req.name;
  updP->value = req.value;
  return E_OK;
}

int makeValueDelete(const CommittedState& state, const DeleteRequest& req, ProposedUpdate* updP) {
  const auto it = state.values.find(req.name);
  if (it == state.values.end()) return E_NOT_FOUND;
  const int rc = checkCondition(true, it->second.version, req.condVersion);
  if (rc != E_OK) return rc;
  *updP = ProposedUpdate{};
  updP->kind = UpdateKind::ValueDelete;
  updP->name = req.name;
  return E_OK;
}

int makeFilePut(const CommittedState& state, const FileNames& names, const FputRequest& req,
                int32_t usedMax, ProposedUpdate* updP) {
  if (req.name.empty()) return EINVAL;
  int32_t objId = findFile(names, req.name);
  const auto it = objId == 0 ? state.files.end() : state.files.find(objId);
  int32_t version = 0;
  const bool exists = it != state.files.end();
  const int rc = putVersion(exists, exists ? it->second.version : 0, state.maxDeletedFileVersion,
                            req.condVersion, req.newVersion, &version);
  if (rc != E_OK) return rc;
  if (objId == 0) objId = newFileId(state, req.name, usedMax);
  *updP = ProposedUpdate{};
  updP->kind = UpdateKind::FilePut;
  updP->name = req.name;
  updP->number1 = objId;
  updP->number2 = version;
  return E_OK;
}

int makeFileDelete(const CommittedState& state, const FileNames& names, const DeleteRequest& req,
                   ProposedUpdate* updP) {
  const int32_t objId = findFile(names, req.name);
  const auto it = state.files.find(objId);
  if (objId == 0 || it == state.files.end()) return E_NOT_FOUND;
  const int rc = checkCondition(true, it->second.version, req.condVersion);
  if (rc != E_OK) return rc;
  *updP = ProposedUpdate{};
  updP->kind = UpdateKind::FileDelete;
  updP->name = req.name;
  updP->number1 = objId;
  return E_OK;
}

int checkConfigChange(const ConfigChange& change) {
  const PaxosConfig& c = change.config;
  if (c.minNodes < -1) return EINVAL;
  if (change.setNodes) {
    std::set<int32_t> ids;
    bool slotUsed[MaxPaxosSlots] = {};
    int holders = 0;
    for (const ConfigNodeEntry& e : c.nodes) {
      if (e.nodeId < 1 || !ids.insert(e.nodeId).second) return EINVAL;
      if (e.diskSlot < -1 || e.diskSlot >= MaxPaxosSlots || e.version < 0) return EINVAL;
      if (e.diskSlot < 0) continue;
      if (slotUsed[e.diskSlot]) return EINVAL;
      slotUsed[e.diskSlot] = true;
      ++holders;
    }
    if (holders == 0) return EINVAL;
  }
  if (change.setDisks) {
    std::set<int32_t> ids;
    for (const int32_t id : c.disks) {
      if (id < 1 || !ids.insert(id).second) return EINVAL;
    }
  }
  return E_OK;
}

int makeConfigChange(const CommittedState& state, const ConfigRequest& req,
                     ProposedUpdate* updP) {
  if (const int rc = checkConfigChange(req.change); rc != E_OK) return rc;
  if (req.configVersion >= 0 && req.configVersion != state.configVersion) {
    return E_VERSION_MISMATCH;
  }
  *updP = ProposedUpdate{};
  updP->kind = UpdateKind::Config;
  updP->config = req.change;
  return E_OK;
}

ProposedUpdate makeLeaderChange(int32_t leaderId, int32_t leaseMs) {
  ProposedUpdate upd;
  upd.kind = UpdateKind::Leader;
  upd.number1 = leaderId;
  upd.number2 = leaseMs;
  return upd;
}

int checkFileGet(const CommittedState& state, const FileNames& names, const FgetRequest& req,
                 int32_t* objIdP) {
  const int32_t objId = findFile(names, req.name);
  const auto it = state.files.find(objId);
  if (objId == 0 || it == state.files.end()) return E_NOT_FOUND;
  if (req.condVersion >= 0 && req.condVersion == it->second.version) return E_VERSION_MATCH;
  *objIdP = objId;
  return E_OK;
}

namespace {

void applyConfig(const ConfigChange& change, CommittedState* s) {
  if (change.setNodes) s->config.nodes = change.config.nodes;
  if (change.setDisks) s->config.disks = change.config.disks;
  if (change.config.minNodes >= 0) s->config.minNodes = change.config.minNodes;
  s->configVersion += 1;
}

void applyBody(const ProposedUpdate& u, CommittedState* s, FileNames* names) {
  switch (u.kind) {
    case UpdateKind::ValuePut: {
      const auto it = s->values.find(u.name);
      int32_t base = it == s->values.end() ? s->maxDeletedValueVersion : it->second.version;
      s->values[u.name] = {u.param >= 0 ? u.param : base + 1, u.value};
      break;
    }
    case UpdateKind::ValueDelete: {
      const auto it = s->values.find(u.name);
      if (it == s->values.end()) break;
      s->maxDeletedValueVersion = std::max(s->maxDeletedValueVersion, it->second.version);
      s->values.erase(it);
      break;
    }
    case UpdateKind::FilePut:
      s->files[u.number1] = FileRecord{u.number2, u.uid, u.crc};
      (*names)[u.number1] = u.name;
      break;
    case UpdateKind::FileDelete: {
      const auto it = s->files.find(u.number1);
      if (it == s->files.end()) break;
      s->maxDeletedFileVersion = std::max(s->maxDeletedFileVersion, it->second.version);
      s->files.erase(it);
      names->erase(u.number1);
      break;
    }
    case UpdateKind::Config: applyConfig(u.config, s); break;
    case UpdateKind::Leader:
      s->leaderId = u.number1;
      s->lease = u.number2;
      s->leaderVersion += 1;
      break;
    case UpdateKind::None:
    case UpdateKind::Noop: break;
  }
}

}  // namespace

void applyUpdate(const ProposedUpdate& upd, CommittedState* stateP, FileNames* namesP) {
  if (!upd.uid.isZero() && stateP->includes(upd.uid)) {
    qcrLog(4, "applyUpdate: %s already applied", upd.uid.toString().c_str());
    return;
  }
  applyBody(upd, stateP, namesP);
  if (!upd.uid.isZero()) stateP->addUpdate(upd.uid);
}

FileList fileListOf(const CommittedState& state, const FileNames& names) {
  FileList list;
  for (const auto& [objId, record] : state.files) {
    const std::string_view reserved = reservedFileName(objId);
    const auto it = names.find(objId);
    if (!reserved.empty()) {
      list.push_back({objId, std::string(reserved)});
    } else if (it != names.end()) {
      list.push_back({objId, it->second});
    }
  }
  return list;
}

int32_t nodeListVersion(const CommittedState& state) {
  const auto it = state.files.find(kNodesFileObjId);
  return it == state.files.end() ? 0 : it->second.version;
}

}  // namespace qcr
