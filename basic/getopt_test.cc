#include "basic/getopt.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qcr {
namespace {

struct Parsed {
  std::string trace;  // each result: letter, letter=argument, ? or :, then "|index"
  std::string error;  // the last message
};

Parsed parse(const std::vector<const char*>& words, const char* options,
             std::span<const LongOption> longOptions = {}) {
  std::vector<const char*> argv = {"prog"};
  argv.insert(argv.end(), words.begin(), words.end());
  OptionParser parser(static_cast<int>(argv.size()), argv.data(), options, "prog");
  parser.setPrintErrors(false);
  parser.setLongOptions(longOptions);
  Parsed parsed;
  for (int r; (r = parser.next()) != OptionParser::kEndOfOptions;) {
    parsed.trace += r > ' ' ? std::string(1, static_cast<char>(r)) : std::to_string(r);
    if (!parser.argument().empty()) parsed.trace += "=" + parser.argument();
    parsed.trace += " ";
  }
  parsed.trace += "|" + std::to_string(parser.index());
  parsed.error = parser.lastError();
  return parsed;
}

TEST(OptionParser, ShortOptions) {
  const char* kMain = "VyYFWQRP:p:n:f:d:D:c:a:v:m:A:e?";
  struct Case {
    std::vector<const char*> words;
    const char* options;
    const char* trace;
    const char* error;
  } cases[] = {
      {{}, kMain, "|1", ""},
      {{"name", "-V"}, kMain, "|1", ""},           // the first non-option ends the options
      {{"-V", "name", "-F"}, kMain, "V |2", ""},   // never reordered
      {{"-FV", "x"}, kMain, "F V |2", ""},         // letters share a word
      {{"-P1191", "-P", "1192"}, kMain, "P=1191 P=1192 |4", ""},
      {{"-VP1191"}, kMain, "V P=1191 |2", ""},
      {{"--", "-V"}, kMain, "|2", ""},             // "--" is consumed
      {{"-V", "-", "x"}, kMain, "V |3", ""},       // so is a lone "-"
      {{"-?"}, kMain, "? |2", ""},                 // "?" in the string is a letter
      {{"-n", "-V"}, kMain, "n=-V |3", ""},        // a detached argument may look like one
      {{"-c", ""}, kMain, "c |3", ""},
      {{"-m"}, "+Vl:nm?", "m |2", ""},             // "+" is accepted and ignored
      {{"-x"}, "V", "? |2", "prog: `x' is not a valid option.\n"},
      {{"-Vx", "y"}, "V", "V ? |2", "prog: `x' is not a valid option.\n"},
      {{"-xV"}, "V", "? V |2", "prog: `x' is not a valid option.\n"},
      {{"-:"}, "a:", "? |2", "prog: `:' is not a valid option.\n"},
      {{"-+"}, "+V", "? |2", "prog: `+' is not a valid option.\n"},
      {{"-P"}, "P:", "? |2", "prog: the `P' option requires an argument.\n"},
      {{"-VP"}, "VP:", "V ? |2", "prog: the `P' option requires an argument.\n"},
      {{"-P"}, ":P:", ": |2", "prog: the `P' option requires an argument.\n"},
  };
  for (const Case& c : cases) {
    const Parsed parsed = parse(c.words, c.options);
    const std::string where = c.words.empty() ? "" : c.words[0];
    EXPECT_EQ(parsed.trace, c.trace) << where;
    EXPECT_EQ(parsed.error, c.error) << where;
  }
}

TEST(OptionParser, MatchesLongOptionsByPrefix) {
  const LongOption longs[] = {{"verbose", false, 'V'}, {"version", true, 'v'},
                              {"port", true, 'P'}, {"portable", false, 'B'}};
  struct Case {
    std::vector<const char*> words;
    const char* trace;
    const char* error;
  } cases[] = {
      {{"--verb"}, "V |2", ""},
      {{"--VERBOSE", "x"}, "V |2", ""},
      {{"--vers=3"}, "v=3 |2", ""},
      {{"--vers", "3"}, "v=3 |3", ""},
      {{"--port", "1"}, "P=1 |3", ""},          // exact beats the longer "portable"
      {{"--porta"}, "B |2", ""},
      {{"--ver"}, "? |2", "prog: `ver' is ambiguous; matches the prefix of more than one option.\n"},
      {{"--nope"}, "? |2", "prog: `nope' is not a valid option.\n"},
      {{"--verbose=1"}, "? |2", "prog: the `verbose' option does not take an argument.\n"},
      {{"--port"}, "? |2", "prog: the `port' option requires an argument.\n"},
      {{"--", "--port"}, "|2", ""},
  };
  for (const Case& c : cases) {
    const Parsed parsed = parse(c.words, "V", longs);
    EXPECT_EQ(parsed.trace, c.trace) << c.words[0];
    EXPECT_EQ(parsed.error, c.error) << c.words[0];
  }
}

}  // namespace
}  // namespace qcr
