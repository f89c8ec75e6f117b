// The archive a backup sends: a tar file made by /bin/tar, run without a shell.
#pragma once

#include <string>
#include <vector>

namespace qcr {

// Writes the tar archive archive holding members (paths relative to baseDir),
// gzip-compressed when compress is set; whatever is at archive before (a file, a
// link) is removed first, never written through. Every path reaches tar as one
// argument of its own, so no character in them (blanks, quotes, ";") has any
// effect but naming a file. Waits at most ten minutes for tar. 0, E_IO when tar fails, or
// the error of starting or waiting for it.
[[nodiscard]] int writeArchive(const std::string& archive, const std::string& baseDir,
                               const std::vector<std::string>& members, bool compress);

}  // namespace qcr
