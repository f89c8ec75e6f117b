// Durable overwrite in place, for files whose content records its own length
// (the state file copies): rewriting the same blocks and forcing only the data to
// disk spares the metadata updates of truncating and regrowing the file.
#pragma once

#include <string>
#include <string_view>

namespace qcr {

// Writes data at the start of path (created with mode when missing), leaves any
// longer old tail in place, and forces the data to disk (fdatasync) before it
// returns; a file it created has its directory synced too. A symbolic link at path
// is not followed (ELOOP). 0 or the system's error number (5 when it left none).
[[nodiscard]] int overwriteFile(const std::string& path, std::string_view data, int mode);

}  // namespace qcr
