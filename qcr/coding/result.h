// Result codes. Every operation that can fail returns one int: 0 (E_OK), a system
// error number, a code passed through from a server, or one of the repository's
// own codes 801-826 below. The numbers travel in reply bodies: never renumber.
#pragma once

namespace qcr {

inline constexpr int E_OK = 0;
inline constexpr int E_MAX_RETRIES = 801;
inline constexpr int E_NODE_INIT = 802;
inline constexpr int E_DISK_INIT = 803;
inline constexpr int E_NOT_FOUND = 804;
inline constexpr int E_VERSION_MISMATCH = 805;
inline constexpr int E_VERSION_MATCH = 806;
inline constexpr int E_INVALID_VERSION = 807;
inline constexpr int E_NOT_ACTIVE = 808;
inline constexpr int E_NO_QUORUM = 809;
inline constexpr int E_IO = 810;
inline constexpr int E_NO_DIR = 811;
inline constexpr int E_NODES_FILE = 812;
inline constexpr int E_NO_FILE = 813;
inline constexpr int E_ALREADY_INIT = 814;
inline constexpr int E_NOT_LEADER = 815;
inline constexpr int E_SEQ_CHANGED = 816;
inline constexpr int E_PR_KEY_SEED = 817;
inline constexpr int E_ILL_FORMED_MSG = 818;
inline constexpr int E_NO_LEADER_CONTACT = 819;
inline constexpr int E_NOTIFY = 820;
inline constexpr int E_CREATE_DIR = 821;
inline constexpr int E_BEST_GUESS = 822;
inline constexpr int E_NO_QUORUM_NODE_REACHED = 823;
inline constexpr int E_FILE_EMPTY = 824;
inline constexpr int E_TIMEOUT = 825;
inline constexpr int E_MIN_RELEASE = 826;

// Codes shared with the cluster daemon's error space; their text is strerror's.
inline constexpr int E_CORRUPT_STATE = 214;     // a state file failed its checks
inline constexpr int E_CLUSTER_MISMATCH = 315;  // the peer belongs to another cluster
inline constexpr int E_NOT_AUTHORIZED = 703;    // peer key generation unknown or not authorised
inline constexpr int E_NO_SECURITY = 720;       // key, generation or cipher list missing

// The text printed for a code: the fixed text for 0 and 801-826 (empty for 0),
// strerror's text for every other code, negative ones included. The text lives
// for the whole run.
const char* errText(int code);

}  // namespace qcr
