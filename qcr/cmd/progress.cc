#include "qcr/cmd/progress.h"

#include <unistd.h>

#include "qcr/client/client.h"

namespace qcr {

TerminalProgress::TerminalProgress(std::string what, FILE* out, Clock& clock, double delaySeconds,
                                   double refreshSeconds)
    : what_(std::move(what)), out_(out), clock_(clock), delay_(delaySeconds),
      refresh_(refreshSeconds) {}

void TerminalProgress::moved(int64_t done, int64_t total) {
  const double now = clock_.now();
  if (!running_) {
    running_ = true;
    start_ = now;
  }
  if (now - start_ < delay_ || (shown_ && now - last_ < refresh_ && done < total)) return;
  const double mib = 1024.0 * 1024.0;
  const int percent = total > 0 ? static_cast<int>(done * 100 / total) : 100;
  fprintf(out_, "\r%s: %.1f of %.1f MiB (%d%%)", what_.c_str(), static_cast<double>(done) / mib,
          static_cast<double>(total) / mib, percent);
  fflush(out_);
  shown_ = true;
  last_ = now;
}

void TerminalProgress::ended() {
  if (shown_) {
    fputc('\n', out_);
    fflush(out_);
  }
  running_ = false;
  shown_ = false;
}

ProgressOnTerminal::ProgressOnTerminal(Client& client, const std::string& what)
    : client_(client), progress_(what, stderr, client.clock()) {
  if (isatty(STDERR_FILENO) == 1) client_.setTransferProgress(&progress_);
}

ProgressOnTerminal::~ProgressOnTerminal() { client_.setTransferProgress(nullptr); }

}  // namespace qcr
