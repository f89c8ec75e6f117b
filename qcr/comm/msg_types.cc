#include "qcr/comm/msg_types.h"

#include <array>

namespace qcr {

namespace {

struct MsgTypeInfo {
  int type;
  bool needsAuth;
  const char* name;
};

// Read-only requests, replies and sequence commits go without authentication;
// every change, every Paxos and file-transfer message and the probes need it.
constexpr MsgTypeInfo kCatalogue[] = {
    {MSG_TYPE_REFRESH, false, "refresh"},
    {MSG_TYPE_RECOVER, false, "recover"},
    {MSG_TYPE_FAILED, false, "failed"},
    {MSG_TYPE_OK, false, "ok"},
    {MSG_TYPE_STATUS, false, "status"},
    {MSG_TYPE_DEBUG, false, "debug"},
    {MSG_TYPE_DUMP, true, "dump"},
    {MSG_TYPE_INIT, true, "init"},
    {MSG_TYPE_VGET, false, "vget"},
    {MSG_TYPE_VPUT, true, "vput"},
    {MSG_TYPE_VDEL, true, "vdel"},
    {MSG_TYPE_FGET, false, "fget"},
    {MSG_TYPE_FPUT, true, "fput"},
    {MSG_TYPE_FDEL, true, "fdel"},
    {MSG_TYPE_CONFIG, true, "config"},
    {MSG_TYPE_PXINIT, true, "pxinit"},
    {MSG_TYPE_PXREAD, true, "pxread"},
    {MSG_TYPE_PXWRITE, true, "pxwrite"},
    {MSG_TYPE_PXRDWR, true, "pxrdwr"},
    {MSG_TYPE_FXFER, true, "fxfer"},
    {MSG_TYPE_FCRC, true, "fcrc"},
    {MSG_TYPE_FDATA, true, "fdata"},
    {MSG_TYPE_AUTH, false, "auth"},
    {MSG_TYPE_DISCOVER, true, "discover"},
    {MSG_TYPE_QUIT, true, "quit"},
    {MSG_TYPE_FGET_PRIV, true, "fget_priv"},
    {MSG_TYPE_CHECK_READY, true, "check_ready"},
    {MSG_TYPE_BACKUP, true, "backup"},
    {MSG_TYPE_QUERY, false, "query"},
    {MSG_TYPE_PING, true, "ping"},
    {MSG_TYPE_CHECK, true, "check"},
    {MSG_TYPE_SH, true, "sh"},
    {MSG_TYPE_CP_TO, true, "cp_to"},
    {MSG_TYPE_CP_FROM, true, "cp_from"},
    {MSG_TYPE_SEQ_COMMIT, false, "seq_commit"},
    {MSG_TYPE_SEQ_COMMIT_ERROR, false, "seq_commit_error"},
    {MSG_TYPE_SEQ_COMMIT_FGET, false, "seq_commit_fget"},
    {MSG_TYPE_SEQ_COMMIT_FLIST, false, "seq_commit_flist"},
    {MSG_TYPE_UID, false, "uid"},
    {MSG_TYPE_UID_FPUT, false, "uid_fput"},
    {MSG_TYPE_REPLY_PXREAD, false, "reply_pxread"},
    {MSG_TYPE_REPLY_PXWRITE, false, "reply_pxwrite"},
    {MSG_TYPE_REPLY_PXRDWR, false, "reply_pxrdwr"},
    {MSG_TYPE_REPLY_STDOUT, false, "reply_stdout"},
    {MSG_TYPE_REPLY_SDTERR, false, "reply_sdterr"},  // the servers' spelling
    {MSG_TYPE_FAILED_NODE_VER, false, "failed_node_ver"},
    {MSG_TYPE_REPLY_DISCOVER, false, "reply_discover"},
    {MSG_TYPE_EOR, false, "eor"},
    {MSG_TYPE_REPLY_PXRDWR_FXFER, false, "reply_pxrdwr_fxfer"},
    {MSG_TYPE_REPLY_BACKUP, false, "reply_backup"},
    {MSG_TYPE_SEQ_COMMIT_QUERY, false, "seq_commit_query"},
};
static_assert(std::size(kCatalogue) == kMsgTypeCount);

constexpr int kLowest = MSG_TYPE_REFRESH;
constexpr int kHighest = MSG_TYPE_SEQ_COMMIT_QUERY;

// Index by type number, so a lookup is one bounds check and one load.
constexpr std::array<const MsgTypeInfo*, kHighest - kLowest + 1> makeIndex() {
  std::array<const MsgTypeInfo*, kHighest - kLowest + 1> index{};
  for (const MsgTypeInfo& info : kCatalogue) index[info.type - kLowest] = &info;
  return index;
}

constexpr auto kIndex = makeIndex();

const MsgTypeInfo* find(int msgType) {
  return msgType < kLowest || msgType > kHighest ? nullptr : kIndex[msgType - kLowest];
}

}  // namespace

const char* msgName(int msgType) {
  const MsgTypeInfo* info = find(msgType);
  return info != nullptr ? info->name : "unknown";
}

bool msgNeedsAuth(int msgType) {
  const MsgTypeInfo* info = find(msgType);
  return info != nullptr && info->needsAuth;
}

}  // namespace qcr
