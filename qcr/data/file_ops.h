// The repository's file replacement rules: temporary names, the two safe renames,
// directory creation and whole-file replacement. Each logs its outcome in fixed
// words (level 1 on failure, 4 on success) and returns 0 or a system error code.
#pragma once

#include <string>
#include <string_view>

namespace qcr {

// finalName + ".tmp." + process id + "." + thread id. Directory scans skip such
// names.
std::string tempFileName(const std::string& finalName);

// Moves src over dst whatever is there (removing dst first if the system refuses
// with EEXIST).
[[nodiscard]] int replaceRename(const std::string& src, const std::string& dst);

// Moves src to dst only when dst does not exist; otherwise removes src, keeping the
// existing dst (for names that fix their content). The result is that of the last
// operation.
[[nodiscard]] int keepRename(const std::string& src, const std::string& dst);

// Makes one directory with mode; path must not be empty.
[[nodiscard]] int createDirectory(const std::string& path, int mode);

// Replaces path with data atomically: writes a temporary file completely, forces it
// to disk, renames it over path and forces the directory to disk. On a failure
// before the rename the temporary file is removed and path keeps its old content.
[[nodiscard]] int replaceFile(const std::string& path, std::string_view data, int mode);

}  // namespace qcr
