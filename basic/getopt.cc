#include "basic/getopt.h"

#include <cctype>
#include <cstdio>

namespace qcr {
namespace {

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  if (prefix.size() > text.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (tolower(static_cast<unsigned char>(text[i])) !=
        tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

OptionParser::OptionParser(int argc, const char* const* argv, std::string_view optionString,
                           std::string programName, int firstIndex)
    : argc_(argc),
      argv_(argv),
      optionString_(optionString),
      programName_(std::move(programName)),
      index_(firstIndex) {
  // "+" asks for what this parser always does; ":" selects the ':' result.
  if (!optionString_.empty() && optionString_.front() == '+') optionString_.remove_prefix(1);
  if (!optionString_.empty() && optionString_.front() == ':') {
    colonMode_ = true;
    optionString_.remove_prefix(1);
  }
}

int OptionParser::next() {
  argument_.clear();
  badOption_ = 0;
  if (letter_ == 0) {
    if (index_ >= argc_ || argv_[index_] == nullptr) return kEndOfOptions;
    const std::string_view word = argv_[index_];
    if (word.size() < 2 || word[0] != '-') {
      if (word == "-") ++index_;  // a lone "-" ends the options and is consumed
      return kEndOfOptions;
    }
    if (word == "--") {
      ++index_;
      return kEndOfOptions;
    }
    if (word[1] == '-' && !longOptions_.empty()) return nextLong(word.substr(2));
    letter_ = 1;
  }
  return nextShort();
}

int OptionParser::nextShort() {
  const std::string_view word = argv_[index_];
  const char letter = word[letter_++];
  const std::string_view rest = word.substr(letter_);
  const size_t pos = letter == ':' ? std::string_view::npos : optionString_.find(letter);
  const bool known = pos != std::string_view::npos;
  const bool takesArgument = known && optionString_.substr(pos + 1, 1) == ":";
  if (rest.empty() || takesArgument) {
    letter_ = 0;  // this word is used up
    ++index_;
  }
  if (!known) {
    badOption_ = letter;
    return fail('?', ": `", std::string_view(&letter, 1), "' is not a valid option.\n");
  }
  if (!takesArgument) return letter;
  if (!rest.empty()) {
    argument_ = rest;
  } else if (index_ < argc_) {
    argument_ = argv_[index_++];
  } else {
    badOption_ = letter;
    return fail(colonMode_ ? ':' : '?', ": the `", std::string_view(&letter, 1),
                "' option requires an argument.\n");
  }
  return letter;
}

int OptionParser::nextLong(std::string_view word) {
  ++index_;
  const size_t equals = word.find('=');
  const std::string_view name = word.substr(0, equals);
  bool ambiguous = false;
  const LongOption* option = findLong(name, &ambiguous);
  if (ambiguous) {
    return fail('?', ": `", name, "' is ambiguous; matches the prefix of more than one option.\n");
  }
  if (option == nullptr) return fail('?', ": `", name, "' is not a valid option.\n");
  if (!option->hasArgument) {
    if (equals == std::string_view::npos) return option->value;
    return fail('?', ": the `", option->name, "' option does not take an argument.\n");
  }
  if (equals != std::string_view::npos) {
    argument_ = word.substr(equals + 1);
  } else if (index_ < argc_) {
    argument_ = argv_[index_++];
  } else {
    return fail(colonMode_ ? ':' : '?', ": the `", option->name,
                "' option requires an argument.\n");
  }
  return option->value;
}

const LongOption* OptionParser::findLong(std::string_view name, bool* ambiguousP) const {
  const LongOption* found = nullptr;
  int prefixMatches = 0;
  for (const LongOption& option : longOptions_) {
    const std::string_view candidate = option.name;
    if (name.empty() || !startsWithNoCase(candidate, name)) continue;
    if (name.size() == candidate.size()) return &option;  // an exact match wins
    found = &option;
    ++prefixMatches;
  }
  *ambiguousP = prefixMatches > 1;
  return prefixMatches == 1 ? found : nullptr;
}

int OptionParser::fail(int result, const char* before, std::string_view subject,
                       const char* after) {
  lastError_ = programName_ + before + std::string(subject) + after;
  if (printErrors_) {
    fputs(lastError_.c_str(), stderr);
    fflush(stderr);
  }
  return result;
}

}  // namespace qcr
