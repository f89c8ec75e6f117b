#include "qcr/cmd/remote_args.h"

#include <cctype>
#include <cerrno>

#include "basic/log.h"
#include "qcr/transfer/remote.h"

namespace qcr {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

}  // namespace

int tokenizeWords(const std::vector<std::string>& args, std::vector<std::string>* wordsP) {
  enum class State { kBetween, kWord, kSingle, kDouble } state = State::kBetween;
  std::string word;
  auto consume = [&](char c) {
    if (state == State::kSingle || state == State::kDouble) {
      const char quote = state == State::kSingle ? '\'' : '"';
      if (c == quote) {
        state = State::kWord;
      } else {
        word += c;
      }
    } else if (isBlank(c)) {
      if (state == State::kWord) wordsP->push_back(std::move(word));
      word.clear();
      state = State::kBetween;
    } else if (c == '\'' || c == '"') {
      state = c == '\'' ? State::kSingle : State::kDouble;
    } else {
      word += c;
      state = State::kWord;
    }
  };
  for (const std::string& arg : args) {
    for (char c : arg) consume(c);
    consume(' ');  // the end of an argument separates words like a blank
  }
  if (state == State::kSingle || state == State::kDouble) {
    qcrLog(0, "unmatched quotes: %c%s\n", state == State::kSingle ? '\'' : '"', word.c_str());
    return EINVAL;
  }
  return 0;
}

int buildRemoteCommand(const std::vector<std::string>& args, RemoteCommand* commandP) {
  std::vector<std::string> words;
  if (const int rc = tokenizeWords(args, &words); rc != 0) return rc;
  if (words.size() >= 3 && words[0] == "/bin/ksh" && words[1] == "-c") {
    // A command wrapped for a shell runs directly.
    const std::vector<std::string> wrapped(words.begin() + 2, words.end());
    words.clear();
    if (const int rc = tokenizeWords(wrapped, &words); rc != 0) return rc;
  }
  size_t first = 0;
  while (first < words.size() && isAssignment(words[first])) {
    commandP->assignments.push_back(words[first++]);
  }
  if (first == words.size()) {
    qcrLog(0, "command argument missing");
    return EINVAL;
  }
  if (words.size() - first >= 2 && words[first] == "print" && words[first + 1] == "--") {
    commandP->argv.push_back("/bin/echo");
    first += 2;
  }
  commandP->argv.insert(commandP->argv.end(), words.begin() + first, words.end());
  return 0;
}

CopyEndpoint parseCopyEndpoint(const std::string& text) {
  CopyEndpoint endpoint;
  if (text.starts_with('[')) {
    const size_t close = text.find("]:");
    if (close != std::string::npos && close > 1 &&
        text.find_first_not_of("0123456789:", 1) == close) {
      endpoint.host = text.substr(1, close - 1);
      endpoint.path = text.substr(close + 2);
      return endpoint;
    }
  }
  const size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || text.find('/') < colon) {
    endpoint.path = text;
    return endpoint;
  }
  std::string userHost = text.substr(0, colon);
  endpoint.path = text.substr(colon + 1);
  if (const size_t at = userHost.find('@'); at != std::string::npos) {
    endpoint.user = userHost.substr(0, at);
    userHost.erase(0, at + 1);
  }
  if (userHost.empty()) return CopyEndpoint{"", "", text};  // "user@:path" names no host
  endpoint.host = userHost;
  return endpoint;
}

}  // namespace qcr
