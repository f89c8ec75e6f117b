// The repository as a state machine: turning client requests into updates under
// the version rules, and applying decided updates to the committed state.
//
// Everything here is a pure function of its inputs, so every server that applies
// the same updates in the same order holds the same state. The caller serialises
// access (the replica lock).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "qcr/data/committed_state.h"
#include "qcr/data/file_names.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/update.h"

namespace qcr {

// The repository names of the committed files, by object id. The committed state
// keeps files by id only; the server keeps their names beside it.
using FileNames = std::map<int32_t, std::string>;

// The object id of name: its reserved id, the id of the committed file of that
// name, or 0 when there is none.
int32_t findFile(const FileNames& names, const std::string& name);
// The id a new file name gets: its reserved id, or the first id from
// kFirstUserObjId up above every id of the state and above usedMax (the largest
// id still stored in the committed directory), so that no stored id is reused.
int32_t newFileId(const CommittedState& state, const std::string& name, int32_t usedMax);

// Version rules, for values and files alike. base is the stored version, or the
// largest deleted version when the name does not exist.
//  - condVersion >= 0 must equal the stored version (0 for a missing name): 805;
//  - newVersion >= 0 must be above base: 807; without it the version is base + 1.
[[nodiscard]] int checkCondition(bool exists, int32_t stored, int32_t condVersion);
[[nodiscard]] int chooseVersion(int32_t base, int32_t newVersion, int32_t* versionP);

// Builds the update for a request against state; 0 or the refusal (22 for an empty
// name, 804, 805, 807). The uid is left zero for the caller to set.
[[nodiscard]] int makeValuePut(const CommittedState& state, const VputRequest& req,
                               ProposedUpdate* updP);
[[nodiscard]] int makeValueDelete(const CommittedState& state, const DeleteRequest& req,
                                  ProposedUpdate* updP);
// The file's crc is not known yet: the caller fills it in once the file arrived.
// usedMax as for newFileId.
[[nodiscard]] int makeFilePut(const CommittedState& state, const FileNames& names,
                              const FputRequest& req, int32_t usedMax, ProposedUpdate* updP);
[[nodiscard]] int makeFileDelete(const CommittedState& state, const FileNames& names,
                                 const DeleteRequest& req, ProposedUpdate* updP);
// A configuration change must leave a configuration the servers can run on:
// node ids from 1, each once; slots from -1 (none) to MaxPaxosSlots - 1, each
// held once, by at least one node; versions from 0; disk ids from 1, each once;
// minNodes from -1 (not set). 0 or 22.
[[nodiscard]] int checkConfigChange(const ConfigChange& change);
// 22 for a change checkConfigChange refuses, 805 when configVersion (unless -1)
// is not the state's.
[[nodiscard]] int makeConfigChange(const CommittedState& state, const ConfigRequest& req,
                                   ProposedUpdate* updP);
// An "lu" update: leaderId becomes leader for leaseMs.
ProposedUpdate makeLeaderChange(int32_t leaderId, int32_t leaseMs);

// A file read: 0 with its id, 804 when the name does not exist, 806 when
// condVersion equals the stored version.
[[nodiscard]] int checkFileGet(const CommittedState& state, const FileNames& names,
                               const FgetRequest& req, int32_t* objIdP);

// Applies a decided update. An update whose uid the state already records changes
// nothing; otherwise its uid (when not zero) is recorded.
void applyUpdate(const ProposedUpdate& upd, CommittedState* stateP, FileNames* namesP);

// The names of the state's files in object-id order (names the server does not
// know yet are left out).
FileList fileListOf(const CommittedState& state, const FileNames& names);
// The version of the committed node list, or 0 when there is none.
int32_t nodeListVersion(const CommittedState& state);

}  // namespace qcr
