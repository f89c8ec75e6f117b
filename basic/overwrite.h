// Durable overwrite in place, for files whose content records its own length
// (the state file copies): rewriting the same blocks and forcing only the data to
// disk spares the metadata updates of truncating and regrowing the file.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace qcr {

// Writes data at the start of path (created with mode when missing), leaves any
// longer old tail in place, and forces the data to disk (fdatasync) before it
// returns; a file it created has its directory synced too. A symbolic link at path
// is not followed (ELOOP). 0 or the system's error number (5 when it left none).
[[nodiscard]] int overwriteFile(const std::string& path, std::string_view data, int mode);

// The same for a file written again and again: it stays open from the first
// write on, which spares a path lookup, an open and a close per write. A write
// that fails closes it, and a file removed meanwhile is made anew, so that the
// next write goes to the path again. One thread at a time.
class KeptFile final {
 public:
  KeptFile(std::string path, int mode) : path_(std::move(path)), mode_(mode) {}
  ~KeptFile();
  KeptFile(const KeptFile&) = delete;
  KeptFile& operator=(const KeptFile&) = delete;
  [[nodiscard]] int overwrite(std::string_view data);

 private:
  const std::string path_;
  const int mode_;
  int fd_ = -1;
};

}  // namespace qcr
