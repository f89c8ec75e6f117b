// A transfer's progress on a terminal: one line on standard error, rewritten in
// place, for transfers that take longer than a moment. Nothing is shown when
// standard error is no terminal, so scripts see exactly what they saw before.
#pragma once

#include <cstdio>
#include <string>

#include "basic/clock.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

class Client;

class TerminalProgress final : public TransferProgress {
 public:
  // Shows "<what>: <done> of <total> MiB (<p>%)" on out once a transfer has run
  // for delaySeconds, at most every refreshSeconds, and ends the line when it ends.
  TerminalProgress(std::string what, FILE* out, Clock& clock, double delaySeconds = 2.0,
                   double refreshSeconds = 0.2);
  void moved(int64_t done, int64_t total) override;
  void ended() override;

 private:
  std::string what_;
  FILE* out_;
  Clock& clock_;
  double delay_;
  double refresh_;
  bool running_ = false;
  bool shown_ = false;
  double start_ = 0;
  double last_ = 0;
};

// Sets a TerminalProgress named what on the client while it lives, when standard
// error is a terminal.
class ProgressOnTerminal final {
 public:
  ProgressOnTerminal(Client& client, const std::string& what);
  ~ProgressOnTerminal();
  ProgressOnTerminal(const ProgressOnTerminal&) = delete;
  ProgressOnTerminal& operator=(const ProgressOnTerminal&) = delete;

 private:
  Client& client_;
  TerminalProgress progress_;
};

}  // namespace qcr
