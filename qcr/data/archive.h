// Repository archives: tar files, optionally gzip-compressed, made and unpacked
// with the system's tar and gzip programs. The programs run from argument
// vectors, joined into pipelines without a shell, so no path or member name can
// be anything but a name to them.
#pragma once

#include <string>
#include <vector>

namespace qcr {

// Where the programs are looked for: the tar program, then the compressor and
// the decompressor, each with its candidates in order.
struct ArchiveCandidates {
  std::string tar = "/bin/tar";
  std::vector<std::string> gzip = {"/usr/local/bin/gzip", "/bin/gzip"};
  std::vector<std::string> gunzip = {"/usr/local/bin/gunzip", "/bin/gunzip"};
};

// The programs found: an empty path when no candidate exists.
struct ArchiveTools {
  std::string tar;
  std::string gzip;
  std::string gunzip;
};

// The candidates to probe: the fixed paths above, or, in the test build when
// QCR_TOOLS_DIR is set, only "tar", "gzip" and "gunzip" in that directory (so
// that a test can take a program away).
ArchiveCandidates archiveCandidates();

// Probes the candidates (traced "path to tar: ..."). 2 when there is no tar
// program, else 0; *toolsP gets what was found either way.
[[nodiscard]] int findArchiveTools(const ArchiveCandidates& candidates, ArchiveTools* toolsP);

// What an archive holds from one directory: names relative to it.
struct ArchiveGroup {
  std::string dir;
  std::vector<std::string> names;
};

// Writes archive (a new file; 17 when something is there) from groups,
// gzip-compressed when compress is set; 2 when compress is asked and there is no
// compressor. The archive is removed again when tar or gzip fails (5, or the
// error of running them).
[[nodiscard]] int createArchive(const ArchiveTools& tools, const std::string& archive,
                                const std::vector<ArchiveGroup>& groups, bool compress);

// Unpacks archive into dir, decompressing it first when its name ends in ".gz"
// (2 without a decompressor). Members keep neither their owner nor their
// permission bits beyond this process's umask; names that climb out with ".."
// or start at "/" are not written outside dir (tar's own rules). 0, 5 when a
// program fails, or the error of running them.
[[nodiscard]] int extractArchive(const ArchiveTools& tools, const std::string& archive,
                                 const std::string& dir);

// The pipeline as it is traced: the words of every stage joined by single
// blanks, stages by " | ", with "< input" and "> output" where they apply.
std::string pipelineText(const std::vector<std::vector<std::string>>& stages,
                         const std::string& input, const std::string& output);

}  // namespace qcr
