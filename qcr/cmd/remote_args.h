// Argument handling of the remote shell (qcrsh) and remote copy (qcrcp)
// personalities: pure functions, no I/O beyond diagnostics.
#pragma once

#include <string>
#include <vector>

namespace qcr {

// The command that qcrsh asks a node to run.
struct RemoteCommand {
  std::vector<std::string> assignments;  // leading NAME=value words, in order
  std::vector<std::string> argv;         // the command word and its arguments
};

// Splits args into words as one stream of characters: blanks separate words, the
// end of each argument counts as a blank, single and double quotes group
// characters and are removed. Returns 0, or EINVAL after logging (level 0)
// "unmatched quotes: <quote><pending text>" when a quote is left open.
[[nodiscard]] int tokenizeWords(const std::vector<std::string>& args,
                                std::vector<std::string>* wordsP);

// Turns qcrsh's command arguments into a RemoteCommand: tokenises them (again
// after a leading "/bin/ksh" "-c"), takes off NAME=value assignments, and
// replaces a leading "print" "--" by "/bin/echo". Returns 0, the tokeniser's
// error, or EINVAL after logging "command argument missing" when no command word
// is left.
[[nodiscard]] int buildRemoteCommand(const std::vector<std::string>& args,
                                     RemoteCommand* commandP);

// One qcrcp argument: [[user@]host:]path or [addr]:path. An empty host means a
// local path.
struct CopyEndpoint {
  std::string user;
  std::string host;
  std::string path;
  bool isRemote() const { return !host.empty(); }
};

// Splits a qcrcp argument. "[addr]:path" is recognised only when addr consists of
// digits and ":"; otherwise a ":" that comes before any "/" separates
// [user@]host from the path, and everything else is a local path.
CopyEndpoint parseCopyEndpoint(const std::string& text);

}  // namespace qcr
