#include "qcr/cmd/check_record.h"

#include "basic/log.h"

namespace qcr {

namespace {

struct CheckItem {
  const char* description;  // with its leading blank
  const char* mnemonic;
};

// By CheckIndex. The mnemonic's prefix names the kind: FC a file check, PC a ping
// or connection check, TC a tiebreaker check.
constexpr CheckItem kItems[] = {
    {" QCR Client initialization", "QCR_CLIENT_INIT"},
    {" Check QCR authorized key file", "FC_QCR_AUTH_KEYS"},
    {" Check QCR cached directory and file", "FC_QCR_PAXOS_CACHED"},
    {" Check both QCR paxos files", "FC_QCR_PAXOS_12"},
    {" Ping local QCR server", "PC_LOCAL_SERVER"},
    {" Check QCR server IP address lookup", "PC_IP_ADDR_LOOKUP"},
    {" Ping QCR quorum nodes", "PC_QUORUM_NODES"},
    {" Check files in QCR committed directory", "FC_COMMITTED_DIR"},
    {" Check QCR tiebreaker disks", "TC_TIEBREAKER_DISKS"},
};

const char* severityName(int severity) {
  switch (severity) {
    case 0: return "OK";
    case kSeverityInfo: return "INFO";
    case kSeverityWarning: return "WARNING";
    case kSeverityFatal: return "FATAL";
    default: return "UNKNOWN";
  }
}

std::string joined(const std::vector<std::string>& list) {
  std::string text;
  for (size_t i = 0; i < list.size(); ++i) text += (i > 0 ? "," : "") + list[i];
  return text;
}

}  // namespace

void CheckRecord::recordError(int code, const std::string& message,
                              const std::string& failedEntity, int severity) {
  if (code == 0 || message.empty() || severity == 0) {
    qcrLog(4, "Record error, but unexpected parameter: error: %d errorMsg: %s severity: %d", code,
           message.c_str(), severity);
  }
  if (error_ == 0) {
    error_ = code;
    message_ = message;
    severity_ = severityName(severity);
  }
  if (!failedEntity.empty()) failed_.push_back(failedEntity);
  qcrLog(4, "Record error: error: %d errorMsg: %s failedEntity: %s severity: %s", code,
         message.c_str(), failedEntity.c_str(), severity_.c_str());
}

void CheckRecord::recordSuccess(const std::string& entity, const std::string& detail) {
  if (!entity.empty()) succeeded_.push_back(entity);
  succeedText_ = detail;
}

std::string CheckRecord::header() const {
  return prefix_ +
         "::HEADER:version:reserved:reserved:NodeId:CheckMnemonic:ErrorCode:ErrorMsg:"
         "ListOfFailedEntities:ListOfSucceedEntities:Severity:";
}

std::string CheckRecord::render() {
  const CheckItem& item = kItems[index_];
  std::string line;
  if (machineReadable_) {
    line = prefix_ + "::0:1:::" + std::to_string(nodeId_) + ":" + item.mnemonic + ":" +
           std::to_string(error_) + ":" + message_ + ":" + joined(failed_) + ":" +
           joined(succeeded_) + ":" + severity_ + ":";
  } else if (error_ != 0) {
    line = std::string(item.description) + " failed (" + std::to_string(error_) + "-" + message_ +
           ")";
  } else if (!succeedText_.empty()) {
    line = std::string(item.description) + " succeed (" + succeedText_ + ")";
  } else {
    line = std::string(item.description) + " succeed";
  }
  error_ = 0;
  message_.clear();
  failed_.clear();
  succeeded_.clear();
  succeedText_.clear();
  severity_ = "OK";
  return line;
}

}  // namespace qcr
