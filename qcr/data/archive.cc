#include "qcr/data/archive.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"

namespace qcr {
namespace {

constexpr bool kTestInstall = QCR_IS_TEST_INSTALL != 0;
constexpr int kArchiveTimeoutMs = 10 * 60 * 1000;

bool hasSuffix(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string firstExecutable(const std::vector<std::string>& paths) {
  for (const std::string& p : paths) {
    if (access(p.c_str(), X_OK) == 0) return p;
  }
  return "";
}

// Runs a pipeline and judges its stages: 0, 5 when one ended badly, or the
// error of running them.
int runStages(const char* what, const std::string& archive,
              const std::vector<std::vector<std::string>>& stages, const std::string& input,
              const std::string& output) {
  qcrLog(4, "%s archive: '%s' using this cmd: '%s'", what, archive.c_str(),
         pipelineText(stages, input, output).c_str());
  std::vector<ChildStatus> statuses;
  const int rc = runPipeline(stages, input, output, kArchiveTimeoutMs, &statuses);
  if (rc != 0) {
    qcrLog(1, "%s archive: '%s' failed (%d)", what, archive.c_str(), rc);
    return rc;
  }
  for (size_t i = 0; i < statuses.size(); ++i) {
    if (statuses[i].exitCode != 0) {
      qcrLog(1, "%s archive: '%s': %s ended with %d (signal %d)", what, archive.c_str(),
             stages[i][0].c_str(), statuses[i].exitCode, statuses[i].signal);
      return EIO;
    }
  }
  return 0;
}

}  // namespace

ArchiveCandidates archiveCandidates() {
  ArchiveCandidates c;
  const char* dir = kTestInstall ? std::getenv("QCR_TOOLS_DIR") : nullptr;
  if (dir != nullptr && *dir != '\0') {
    const std::string d(dir);
    c.tar = d + "/tar";
    c.gzip = {d + "/gzip"};
    c.gunzip = {d + "/gunzip"};
  }
  return c;
}

int findArchiveTools(const ArchiveCandidates& candidates, ArchiveTools* toolsP) {
  ArchiveTools& t = *toolsP;
  t.tar = access(candidates.tar.c_str(), X_OK) == 0 ? candidates.tar : "";
  t.gzip = firstExecutable(candidates.gzip);
  t.gunzip = firstExecutable(candidates.gunzip);
  qcrLog(4, "path to tar: '%s' gzip: '%s' gunzip: '%s'", t.tar.c_str(), t.gzip.c_str(),
         t.gunzip.c_str());
  return t.tar.empty() ? ENOENT : 0;
}

std::string pipelineText(const std::vector<std::vector<std::string>>& stages,
                         const std::string& input, const std::string& output) {
  std::string text;
  for (size_t i = 0; i < stages.size(); ++i) {
    if (i > 0) text += " | ";
    for (size_t j = 0; j < stages[i].size(); ++j) {
      if (j > 0) text += " ";
      text += stages[i][j];
    }
    if (i == 0 && !input.empty()) text += " < " + input;
  }
  if (!output.empty()) text += " > " + output;
  return text;
}

int createArchive(const ArchiveTools& tools, const std::string& archive,
                  const std::vector<ArchiveGroup>& groups, bool compress) {
  if (tools.tar.empty() || archive.empty() || groups.empty()) return EINVAL;
  if (compress && tools.gzip.empty()) return ENOENT;
  // tar writes to its standard output, which is the archive (a new file) or the
  // compressor's input.
  std::vector<std::string> tar = {tools.tar, "-cf", "-"};
  for (const ArchiveGroup& g : groups) {
    tar.insert(tar.end(), {"-C", g.dir});
    for (const std::string& name : g.names) {
      // "--" would also end the "-C" of the next group, so a name that tar would
      // read as an option goes in as "./name", which names the same file.
      tar.push_back(!name.empty() && name[0] == '-' ? "./" + name : name);
    }
  }
  std::vector<std::vector<std::string>> stages = {tar};
  if (compress) stages.push_back({tools.gzip, "-c"});
  const int rc = runStages("Create", archive, stages, "", archive);
  if (rc != 0 && rc != EEXIST) (void)removeFile(archive);
  return rc;
}

int extractArchive(const ArchiveTools& tools, const std::string& archive, const std::string& dir) {
  if (tools.tar.empty() || archive.empty() || dir.empty()) return EINVAL;
  const std::vector<std::string> tar = {tools.tar, "-x", "--no-same-owner", "--no-same-permissions",
                                        "-f", "-", "-C", dir};
  if (!hasSuffix(archive, ".gz")) return runStages("Extract", archive, {tar}, archive, "");
  if (tools.gunzip.empty()) {
    qcrLog(1, "Passed archive (%s) is compressed, but no path to uncompress tool", archive.c_str());
    return ENOENT;
  }
  return runStages("Extract", archive, {{tools.gunzip, "-c"}, tar}, archive, "");
}

}  // namespace qcr
