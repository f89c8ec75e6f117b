// The message catalogue: every message type number that travels between the tool
// and a QCR server, its name and whether it needs an authenticated connection.
// The numbers are the wire protocol: never renumber. Numbers outside the table
// (21-30, 38-39, 43-49, below -3, above 66) are ill-formed.
#pragma once

namespace qcr {

inline constexpr int MSG_TYPE_REFRESH = -3;
inline constexpr int MSG_TYPE_RECOVER = -2;
inline constexpr int MSG_TYPE_FAILED = -1;  // also the generic failure reply
inline constexpr int MSG_TYPE_OK = 0;       // also the generic success reply
inline constexpr int MSG_TYPE_STATUS = 1;
inline constexpr int MSG_TYPE_DEBUG = 2;
inline constexpr int MSG_TYPE_DUMP = 3;
inline constexpr int MSG_TYPE_INIT = 4;
inline constexpr int MSG_TYPE_VGET = 5;
inline constexpr int MSG_TYPE_VPUT = 6;
inline constexpr int MSG_TYPE_VDEL = 7;
inline constexpr int MSG_TYPE_FGET = 8;
inline constexpr int MSG_TYPE_FPUT = 9;
inline constexpr int MSG_TYPE_FDEL = 10;
inline constexpr int MSG_TYPE_CONFIG = 11;
inline constexpr int MSG_TYPE_PXINIT = 12;
inline constexpr int MSG_TYPE_PXREAD = 13;
inline constexpr int MSG_TYPE_PXWRITE = 14;
inline constexpr int MSG_TYPE_PXRDWR = 15;
inline constexpr int MSG_TYPE_FXFER = 16;
inline constexpr int MSG_TYPE_FCRC = 17;
inline constexpr int MSG_TYPE_FDATA = 18;
inline constexpr int MSG_TYPE_AUTH = 19;
inline constexpr int MSG_TYPE_DISCOVER = 20;
inline constexpr int MSG_TYPE_QUIT = 31;
inline constexpr int MSG_TYPE_FGET_PRIV = 32;
inline constexpr int MSG_TYPE_CHECK_READY = 33;
inline constexpr int MSG_TYPE_BACKUP = 34;
inline constexpr int MSG_TYPE_QUERY = 35;
inline constexpr int MSG_TYPE_PING = 36;
inline constexpr int MSG_TYPE_CHECK = 37;
inline constexpr int MSG_TYPE_SH = 40;
inline constexpr int MSG_TYPE_CP_TO = 41;  // also announces a file copied to a node
inline constexpr int MSG_TYPE_CP_FROM = 42;
inline constexpr int MSG_TYPE_SEQ_COMMIT = 50;
inline constexpr int MSG_TYPE_SEQ_COMMIT_ERROR = 51;
inline constexpr int MSG_TYPE_SEQ_COMMIT_FGET = 52;
inline constexpr int MSG_TYPE_SEQ_COMMIT_FLIST = 53;
inline constexpr int MSG_TYPE_UID = 54;
inline constexpr int MSG_TYPE_UID_FPUT = 55;
inline constexpr int MSG_TYPE_REPLY_PXREAD = 56;
inline constexpr int MSG_TYPE_REPLY_PXWRITE = 57;
inline constexpr int MSG_TYPE_REPLY_PXRDWR = 58;
inline constexpr int MSG_TYPE_REPLY_STDOUT = 59;
inline constexpr int MSG_TYPE_REPLY_SDTERR = 60;
inline constexpr int MSG_TYPE_FAILED_NODE_VER = 61;
inline constexpr int MSG_TYPE_REPLY_DISCOVER = 62;
inline constexpr int MSG_TYPE_EOR = 63;  // end of records on a cached connection
inline constexpr int MSG_TYPE_REPLY_PXRDWR_FXFER = 64;
inline constexpr int MSG_TYPE_REPLY_BACKUP = 65;
inline constexpr int MSG_TYPE_SEQ_COMMIT_QUERY = 66;

// The reply types under the names the request code uses.
inline constexpr int REPLY_TYPE_SEQ_COMMIT = MSG_TYPE_SEQ_COMMIT;
inline constexpr int REPLY_TYPE_SEQ_COMMIT_ERROR = MSG_TYPE_SEQ_COMMIT_ERROR;
inline constexpr int REPLY_TYPE_SEQ_COMMIT_FGET = MSG_TYPE_SEQ_COMMIT_FGET;
inline constexpr int REPLY_TYPE_SEQ_COMMIT_FLIST = MSG_TYPE_SEQ_COMMIT_FLIST;
inline constexpr int REPLY_TYPE_UID = MSG_TYPE_UID;
inline constexpr int REPLY_TYPE_UID_FPUT = MSG_TYPE_UID_FPUT;
inline constexpr int REPLY_TYPE_PXREAD = MSG_TYPE_REPLY_PXREAD;
inline constexpr int REPLY_TYPE_PXWRITE = MSG_TYPE_REPLY_PXWRITE;
inline constexpr int REPLY_TYPE_PXRDWR = MSG_TYPE_REPLY_PXRDWR;
inline constexpr int REPLY_TYPE_STDOUT = MSG_TYPE_REPLY_STDOUT;
inline constexpr int REPLY_TYPE_SDTERR = MSG_TYPE_REPLY_SDTERR;
inline constexpr int REPLY_TYPE_FAILED_NODE_VER = MSG_TYPE_FAILED_NODE_VER;
inline constexpr int REPLY_TYPE_DISCOVER = MSG_TYPE_REPLY_DISCOVER;
inline constexpr int REPLY_TYPE_EOR = MSG_TYPE_EOR;
inline constexpr int REPLY_TYPE_PXRDWR_FXFER = MSG_TYPE_REPLY_PXRDWR_FXFER;
inline constexpr int REPLY_TYPE_BACKUP = MSG_TYPE_REPLY_BACKUP;
inline constexpr int REPLY_TYPE_SEQ_COMMIT_QUERY = MSG_TYPE_SEQ_COMMIT_QUERY;

inline constexpr int kMsgTypeCount = 51;

// The type's name ("reply_sdterr" keeps its historic spelling), or "unknown".
// The text lives for the whole run; any thread may call.
const char* msgName(int msgType);
// Whether the first message of this type on a secured connection must run the
// authentication exchange; false for numbers outside the table.
bool msgNeedsAuth(int msgType);

}  // namespace qcr
