// What the command understands, what it refuses, and what its help says, each seen from outside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct Refused {
  std::vector<std::string> arguments;
  std::string message;
};

const Refused kRefused[] = {
    {{}, "no command given; see 'kestrine --help'"},
    {{"watch"}, "unknown command 'watch'; see 'kestrine --help'"},
    {{"help", "watch"}, "unknown command 'watch'"},
    {{"--verbose"}, "unknown command '--verbose'"},
    {{"status", "--xml"}, "status: unknown option '--xml'; see 'kestrine status --help'"},
    {{"status", "now"}, "status: unexpected argument 'now'"},
    {{"status", "--json=yes"}, "status: option '--json' takes no value"},
    {{"status", "--json", "--json"}, "status: option '--json' stands twice"},
    {{"start", "--base"}, "start: option '--base' needs a value: DIR"},
    {{"start", "--timeout", "soon"}, "'--timeout soon' is no number of seconds"},
    {{"start", "--timeout", "0"}, "'--timeout 0' is no number of seconds"},
    {{"stop", "--timeout", "-1"}, "'--timeout -1' is no number of seconds"},
    {{"stop", "--timeout", "86401"}, "'--timeout 86401' is no number of seconds"},
    {{"follow", "me"}, "follow: unexpected argument 'me'"},
    {{"defaults"}, "defaults: too few arguments, expected read|write|delete|list"},
    {{"defaults", "show"}, "unknown action 'show', expected read, write, delete or list"},
    {{"defaults", "read"}, "'read' takes DOMAIN [KEY]"},
    {{"defaults", "read", "a", "b", "c"}, "'read' takes DOMAIN [KEY]"},
    {{"defaults", "write", "domain", "key"}, "'write' takes DOMAIN KEY VALUE"},
    {{"defaults", "write", "a/b", "key", "value"}, "'a/b' is no name of a domain"},
    {{"defaults", "write", "domain", "key", "seven", "--type", "int"}, "'seven' is no value of type int"},
    {{"defaults", "write", "domain", "key", "7", "--type", "date"}, "unknown type 'date', expected string, int, float or bool"},
    {{"call"}, "call: which operation? 'kestrine call --list' names them"},
    {{"call", "LogError", "--xml"}, "call: unknown option '--xml'; see 'kestrine call --help'"},
    {{"events"}, "events: too few arguments, expected PATH..."},
    {{"events", "/", "--latency", "-1"}, "'--latency -1' is not a number of seconds from 0 to 86400"},
    {{"events", "/", "--latency", "nan"}, "'--latency nan' is not a number"},
    {{"events", "/", "--since", "yesterday"}, "'--since yesterday' is not an event identifier or 'now'"},
    {{"events", "/", "--source", "kqueue"}, "'--source kqueue' is not fanotify, inotify or auto"},
    {{"events", "/", "--flags", "0x100000000"}, "'--flags 0x100000000' is not a number of 32 bits"},
    {{"events", "/", "--flags", "16 "}, "'--flags 16 ' is not a number of 32 bits"},
};

TEST(CommandLine, RefusesWhatItDoesNotUnderstandAndSaysWhat) {
  const Sandbox sandbox;
  for (const Refused& refused : kRefused) {
    const Outcome outcome = sandbox.run(refused.arguments);
    EXPECT_EQ(outcome.status, 2) << refused.message;
    EXPECT_THAT(outcome.errorOutput, HasSubstr("kestrine: ")) << refused.message;
    EXPECT_THAT(outcome.errorOutput, HasSubstr(refused.message));
    EXPECT_THAT(outcome.output, IsEmpty()) << refused.message;
  }
}

struct Helped {
  std::string command;
  /// Options, operands and exit codes that its help must name.
  std::vector<std::string> texts;
};

const Helped kHelped[] = {
    {"start", {"--base DIR", "--timeout S", "  0  ", "  1  ", "  2  ", "  4  ", "  5  ", "  6  ", "  7  "}},
    {"stop", {"--timeout S", "  0  ", "  1  ", "  2  ", "  6  "}},
    {"status", {"--json", "  0  ", "  2  ", "  3  ", "  4  ", "  6  "}},
    {"follow", {"--json", "  0  ", "  1  ", "  2  "}},
    {"defaults",
     {"read DOMAIN [KEY]", "write DOMAIN KEY VALUE", "delete DOMAIN [KEY]", "list [DOMAIN]", "--type TYPE", "  1  ", "  2  ", "  8  "}},
    {"call", {"OPERATION [PROPERTY=VALUE]...", "--list", "--json", "--os VERSION", "--output FILE", "  0  ", "  1  ", "  2  "}},
    {"events",
     {"PATH...", "--latency S", "--since ID", "--no-file-events", "--no-defer", "--watch-root", "--exclude PATH", "--source SOURCE",
      "--flags N", "--json", "path_hex", "  0  ", "  1  ", "  2  ", "  4  "}},
};

TEST(CommandLine, HelpsWithEachCommand) {
  const Sandbox sandbox;
  const Outcome general = sandbox.run({"--help"});
  EXPECT_EQ(general.status, 0);
  for (const char* code : {"  0  ", "  1  ", "  2  ", "  3  ", "  4  ", "  5  ", "  6  ", "  7  ", "  8  "}) {
    EXPECT_THAT(general.output, HasSubstr(code));
  }
  for (const Helped& helped : kHelped) {
    EXPECT_THAT(general.output, HasSubstr("  " + helped.command + " "));
    const Outcome outcome = sandbox.run({helped.command, "--help"});
    EXPECT_EQ(outcome.status, 0) << helped.command;
    EXPECT_THAT(outcome.output, HasSubstr("Usage: kestrine " + helped.command));
    for (const std::string& text : helped.texts) EXPECT_THAT(outcome.output, HasSubstr(text)) << helped.command;
    EXPECT_EQ(sandbox.run({"help", helped.command}).output, outcome.output);
  }
}

TEST(CommandLine, NamesItsVersion) {
  const Outcome outcome = Sandbox().run({"--version"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, testing::MatchesRegex("kestrine [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(CommandLine, TakesWhatLooksLikeAnOptionAsAnOperandBehindTwoDashes) {
  const Sandbox sandbox;
  EXPECT_EQ(sandbox.run({"defaults", "write", "--", "domain", "--help", "--json"}).status, 0);
  EXPECT_EQ(sandbox.run({"defaults", "read", "--", "domain", "--help"}).output, "--json\n");
}

TEST(CommandLine, SaysWhenItsOutputCannotBeWritten) {
  const Sandbox sandbox;
  const Outcome outcome = runToEnd({"sh", "-c", "exec '" KESTRINE_COMMAND "' --help >/dev/full"}, sandbox.options());
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("standard output could not be written"));
}

}  // namespace
}  // namespace kestrine::test
