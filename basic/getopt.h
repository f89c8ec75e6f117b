// A small command-line option parser. Unlike the classic getopt it keeps all of
// its state in the object (one per parse) and never reorders argv: the first word
// that is not an option ends the options.
//
// next() looks at argv[index()] and returns, in order:
//  - kEndOfOptions at the end of argv, at a word that does not begin with "-",
//    at "--" and at a lone "-" (both consumed: index() moves past them);
//  - the option letter; letters may share one word (-FV). A letter followed by
//    ":" in the option string takes an argument: the rest of its word (-P1191)
//    or the next word (-P 1191), available through argument();
//  - '?' for a letter not in the option string ("%s: `%s' is not a valid
//    option.") and for a missing argument ("%s: the `%s' option requires an
//    argument."); a missing argument yields ':' instead when the option string
//    starts with ":". The messages name the program and go to standard error
//    unless setPrintErrors(false); lastError() keeps the latest one.
// A leading "+" in the option string is accepted and ignored: stopping at the
// first non-option is the only mode.
//
// Long options "--name" and "--name=value" (only when setLongOptions was called)
// match by case-insensitive prefix; an exact match wins over prefixes. Their
// errors are the unknown-option and missing-argument messages above with the name,
// "%s: `%s' is ambiguous; matches the prefix of more than one option." and "%s: the
// `%s' option does not take an argument." next() returns the option's value.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace qcr {

struct LongOption {
  const char* name;
  bool hasArgument;
  int value;  // what next() returns for this option
};

class OptionParser final {
 public:
  static constexpr int kEndOfOptions = -1;

  // argv must outlive the parser; parsing starts at argv[firstIndex].
  OptionParser(int argc, const char* const* argv, std::string_view optionString,
               std::string programName, int firstIndex = 1);

  void setLongOptions(std::span<const LongOption> options) { longOptions_ = options; }
  void setPrintErrors(bool on) { printErrors_ = on; }

  int next();

  // The first word not yet consumed (after kEndOfOptions: the first operand).
  int index() const { return index_; }
  // The argument of the option last returned.
  const std::string& argument() const { return argument_; }
  // The letter that caused the last '?' or ':' (0 for a long option).
  int badOption() const { return badOption_; }
  const std::string& lastError() const { return lastError_; }

 private:
  int nextShort();
  int nextLong(std::string_view word);
  const LongOption* findLong(std::string_view name, bool* ambiguousP) const;
  int fail(int result, const char* before, std::string_view subject, const char* after);

  int argc_;
  const char* const* argv_;
  std::string_view optionString_;
  std::string programName_;
  std::span<const LongOption> longOptions_;
  bool printErrors_ = true;
  bool colonMode_ = false;
  int index_;
  size_t letter_ = 0;  // position inside argv[index_] while letters share a word
  std::string argument_;
  int badOption_ = 0;
  std::string lastError_;
};

}  // namespace qcr
