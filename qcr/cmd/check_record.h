// The health record of the check command: one object that every check fills with
// its outcome (an error code and message, a severity, the entities that failed and
// those that passed) and that is then rendered as one output line and reset for
// the next check.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/cmd/prologue.h"

namespace qcr {

// The checks, by index: their descriptions and mnemonics are fixed.
enum CheckIndex {
  kCheckClientInit = 0,
  kCheckAuthKeys = 1,
  kCheckCached = 2,
  kCheckPaxosFiles = 3,
  kCheckLocalServer = 4,
  kCheckIpLookup = 5,
  kCheckQuorumNodes = 6,
  kCheckCommittedDir = 7,
  kCheckTiebreakers = 8,
};

// Severity numbers of recordError.
inline constexpr int kSeverityInfo = 1;
inline constexpr int kSeverityWarning = 2;
inline constexpr int kSeverityFatal = 3;

class CheckRecord final : public SessionCheckRecord {
 public:
  // machineReadable selects the -Y form; prefix begins its every line.
  explicit CheckRecord(bool machineReadable, std::string prefix = "vyqcr")
      : machineReadable_(machineReadable), prefix_(std::move(prefix)) {}

  // Selects the check that the next entries belong to.
  void begin(CheckIndex index) { index_ = index; }
  void setNodeId(int32_t nodeId) { nodeId_ = nodeId; }

  // Keeps the first error of a check (code, message, severity: 0 OK, 1 INFO,
  // 2 WARNING, 3 FATAL, other UNKNOWN); a non-empty failedEntity is listed
  // whether or not the error is the first. A zero code, an empty message or
  // severity 0 is traced as unexpected and recorded all the same.
  void recordError(int code, const std::string& message, const std::string& failedEntity,
                   int severity) override;
  // Lists a non-empty entity as succeeded and sets the succeed text to detail.
  void recordSuccess(const std::string& entity, const std::string& detail) override;

  int errorCode() const { return error_; }
  bool hasError() const { return error_ != 0; }
  // The -Y header line (without its line end).
  std::string header() const;
  // The current check as one line (without its line end); resets the record.
  std::string render();

 private:
  bool machineReadable_;
  std::string prefix_;
  CheckIndex index_ = kCheckClientInit;
  int32_t nodeId_ = -1;
  int error_ = 0;
  std::string message_;
  std::vector<std::string> failed_;
  std::vector<std::string> succeeded_;
  std::string succeedText_;
  std::string severity_ = "OK";
};

}  // namespace qcr
