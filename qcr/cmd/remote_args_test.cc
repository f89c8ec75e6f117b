#include "qcr/cmd/remote_args.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace qcr {
namespace {

using Words = std::vector<std::string>;

TEST(RemoteArgs, TokenisesAsOneStream) {
  struct Case {
    Words args;
    Words words;
  } cases[] = {
      {{"ls", "-l"}, {"ls", "-l"}},
      {{"ls -l  /tmp"}, {"ls", "-l", "/tmp"}},
      {{"echo 'a b'", "c"}, {"echo", "a b", "c"}},
      {{"x\"y z\"w"}, {"xy zw"}},            // quotes inside a word join it
      {{"'it''s'"}, {"its"}},
      {{"\"a'b\""}, {"a'b"}},                // the other quote is plain text
      {{"'a", "b'"}, {"a b"}},               // an argument's end is a blank, even quoted
      {{"''"}, {""}},
      {{"", " \t"}, {}},
  };
  for (const Case& c : cases) {
    Words words;
    ASSERT_EQ(tokenizeWords(c.args, &words), 0) << c.args[0];
    EXPECT_EQ(words, c.words) << c.args[0];
  }
  for (const Words& open : {Words{"echo 'abc"}, Words{"\"x", "y"}}) {
    Words words;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tokenizeWords(open, &words), EINVAL);
    testing::internal::GetCapturedStderr();
  }
}

TEST(RemoteArgs, BuildsTheRemoteCommand) {
  struct Case {
    Words args;
    Words assignments;
    Words argv;
  } cases[] = {
      {{"/bin/ksh", "-c", "print -- hello"}, {}, {"/bin/echo", "hello"}},
      {{"/bin/ksh -c 'A=1 ls \"x y\"'"}, {"A=1"}, {"ls", "x y"}},
      {{"A=1", "B_2=x=y", "ls"}, {"A=1", "B_2=x=y"}, {"ls"}},
      {{"ls", "A=1"}, {}, {"ls", "A=1"}},        // only leading words are assignments
      {{"=x", "ls"}, {}, {"=x", "ls"}},          // a name is needed
      {{"A-B=1", "ls"}, {}, {"A-B=1", "ls"}},
      {{"print", "hello"}, {}, {"print", "hello"}},
      {{"/bin/ksh", "-c"}, {}, {"/bin/ksh", "-c"}},
  };
  for (const Case& c : cases) {
    RemoteCommand command;
    ASSERT_EQ(buildRemoteCommand(c.args, &command), 0) << c.args[0];
    EXPECT_EQ(command.assignments, c.assignments) << c.args[0];
    EXPECT_EQ(command.argv, c.argv) << c.args[0];
  }
  for (const Words& empty : {Words{"A=1"}, Words{"/bin/ksh", "-c", "B=2"}, Words{" "}}) {
    RemoteCommand command;
    testing::internal::CaptureStderr();
    EXPECT_EQ(buildRemoteCommand(empty, &command), EINVAL) << empty[0];
    testing::internal::GetCapturedStderr();
  }
}

TEST(RemoteArgs, SplitsCopyArguments) {
  struct Case {
    const char* text;
    const char* user;
    const char* host;
    const char* path;
  } cases[] = {
      {"node1:/etc/x", "", "node1", "/etc/x"},
      {"admin@node1:x", "admin", "node1", "x"},
      {"[10:0:0:1]:/tmp/f", "", "10:0:0:1", "/tmp/f"},
      {"[fe80::1]:/f", "", "[fe80", ":1]:/f"},   // brackets only around digits and ":"
      {"/local/a:b", "", "", "/local/a:b"},       // a "/" before the ":" makes it local
      {"plain", "", "", "plain"},
      {"node1:", "", "node1", ""},
      {":x", "", "", ":x"},
      {"u@:x", "", "", "u@:x"},
  };
  for (const Case& c : cases) {
    const CopyEndpoint e = parseCopyEndpoint(c.text);
    EXPECT_EQ(e.user, c.user) << c.text;
    EXPECT_EQ(e.host, c.host) << c.text;
    EXPECT_EQ(e.path, c.path) << c.text;
    EXPECT_EQ(e.isRemote(), *c.host != '\0') << c.text;
  }
}

}  // namespace
}  // namespace qcr
