// Programs that are started without descriptors 0, 1 and 2.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;

/// The command line with some of the standard descriptors closed before it begins; `redirections` is the shell's.
std::vector<std::string> without(const std::string& redirections, const std::vector<std::string>& command) {
  std::vector<std::string> words = {"sh", "-c", "exec \"$@\" " + redirections, "sh"};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

const char* const kAll = "<&- >&- 2>&-";
const char* const kEach[] = {"<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-", "<&- 2>&-", kAll};

TEST(MissingStandardDescriptors, LetNoLineOfTheLogIntoThePreferences) {
  for (const char* redirections : kEach) {
    const Sandbox sandbox;
    makeFolder(sandbox.preferences());
    // The log says that it is kept aside.
    writeFile(sandbox.preferences() + "/domain.plist", "no property list");
    const Outcome written =
        runToEnd(without(redirections, Sandbox::command({"defaults", "write", "domain", "key", "value"})), sandbox.options());
    EXPECT_EQ(written.status, 0) << redirections;
    EXPECT_EQ(readFile(sandbox.preferences() + "/domain.plist.corrupt"), "no property list") << redirections;
    const std::string file = readFile(sandbox.preferences() + "/domain.plist");
    EXPECT_THAT(file, testing::StartsWith("<?xml")) << redirections;
    EXPECT_EQ(sandbox.defaults("domain", "key"), Object("value")) << redirections;
    EXPECT_EQ(readFile(sandbox.preferences() + "/domain.plist.lock"), "") << redirections;
  }
}

TEST(MissingStandardDescriptors, LetTheServiceKeepItsFilesClean) {
  for (const char* redirections : {">&- 2>&-", "<&- 2>&-", kAll}) {
    const Sandbox sandbox;
    std::filesystem::create_directories(sandbox.watched());
    ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "kestrinePathKey", sandbox.base()}).status, 0);
    Process service(without(redirections, {KESTRINE_SERVICE}), sandbox.options());
    ASSERT_TRUE(eventually([&] { return sandbox.service() == service.pid(); })) << redirections;
    ASSERT_EQ(sandbox.run({"start"}).status, 0);
    writeFile(sandbox.watched() + "/file", "text");
    EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough)) << redirections;
    const std::string lock = readFile(sandbox.folder("run/xpc/.Ostrabyte.FileWatcherXpcService.lock"));
    EXPECT_THAT(lock, testing::MatchesRegex("[0-9]+ [0-9]+\n?")) << redirections;
    const std::string file = readFile(sandbox.preferences() + "/Ostrabyte.FileWatcherXpcService.plist");
    EXPECT_THAT(file, testing::StartsWith("<?xml")) << redirections;
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait(), 0) << redirections;
  }
}

TEST(MissingStandardDescriptors, OfACommandAreNotMissingInTheServiceThatItStarts) {
  const Sandbox sandbox;
  const Outcome started = runToEnd(without(kAll, Sandbox::command({"start", "--base", sandbox.base()})), sandbox.options());
  EXPECT_EQ(started.status, 1) << "nobody could be told";
  const pid_t service = sandbox.service();
  ASSERT_GT(service, 0);
  for (const char* number : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(service) + "/fd/" + number), "/dev/null") << number;
  }
  writeFile(sandbox.watched() + "/file", "text");
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough));
}

TEST(MissingStandardDescriptors, MakeACommandSayThatNobodyReadsIt) {
  const Sandbox sandbox;
  sandbox.setFlag("1");
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"--help"}, {"--version"}, {"defaults", "list"}, {"status"}, {"stop"}, {"events", sandbox.base()}, {"call", "--list"}}) {
    const Outcome outcome = runToEnd(without(">&-", Sandbox::command(words)), sandbox.options());
    EXPECT_EQ(outcome.status, 1) << words.front();
    EXPECT_THAT(outcome.errorOutput, HasSubstr("standard output could not be written")) << words.front();
    EXPECT_EQ(runToEnd(without(kAll, Sandbox::command(words)), sandbox.options()).status, 1) << words.front();
  }
}

TEST(MissingStandardDescriptors, MakeNobodyTakeTheFlag) {
  const Sandbox sandbox;
  sandbox.setFlag("1");
  const std::string file = sandbox.preferences() + "/Ostrabyte.FileWatcherXpcService.plist";
  const auto before = std::filesystem::last_write_time(file);
  for (const char* redirections : {">&-", ">&- 2>&-", kAll}) {
    const Outcome outcome = runToEnd(without(redirections, Sandbox::command({"follow"})), sandbox.options());
    EXPECT_EQ(outcome.status, 1) << redirections;
    EXPECT_EQ(sandbox.flag(), Object("1")) << redirections;
    EXPECT_EQ(std::filesystem::last_write_time(file), before) << "nor was it taken and put back";
  }
}

TEST(AStandardErrorThatTakesNothing, LetsCommandsEndAsTheyWould) {
  const Sandbox sandbox;
  for (const char* redirections : {"2>&-", "2>/dev/full"}) {
    EXPECT_EQ(runToEnd(without(redirections, Sandbox::command({"nonsense"})), sandbox.options()).status, 2) << redirections;
    EXPECT_EQ(runToEnd(without(redirections, Sandbox::command({"defaults", "read", "missing"})), sandbox.options()).status, 8)
        << redirections;
    Process follower(without(redirections, Sandbox::command({"follow"})), sandbox.options());
    sandbox.setFlag("1");
    EXPECT_TRUE(follower.waitForOutput("changed\n")) << redirections;
    follower.signal(SIGTERM);
    EXPECT_EQ(follower.wait(), 0) << redirections;
  }
}

TEST(TheServicesProgram, SaysWhatItIsAndStartsNothing) {
  const Sandbox sandbox;
  const Outcome help = runToEnd({KESTRINE_SERVICE, "--help"}, sandbox.options());
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, HasSubstr("the folder-watching service"));
  EXPECT_THAT(runToEnd({KESTRINE_SERVICE, "--version"}, sandbox.options()).output, testing::StartsWith("FileWatcherXpcService "));
  EXPECT_FALSE(std::filesystem::exists(sandbox.folder("run/xpc")));
}

TEST(CommandLine, TakesANumberBelowZeroForAnOperand) {
  const Sandbox sandbox;
  EXPECT_EQ(sandbox.run({"defaults", "write", "d", "k", "-5"}).status, 0);
  EXPECT_EQ(sandbox.defaults("d", "k"), Object("-5"));
  EXPECT_EQ(sandbox.run({"defaults", "write", "d", "k", "--type", "float", "-.5"}).status, 0);
  EXPECT_EQ(sandbox.defaults("d", "k"), Object::numberWithDouble(-0.5));
  EXPECT_EQ(sandbox.run({"defaults", "write", "d", "k", "-x"}).status, 2);
}

TEST(CommandLine, NamesThePreferencesOfAHomeThatIsTheRootPlainly) {
  const Sandbox sandbox;
  Process::Options options = sandbox.options();
  options.environment["HOME"] = "/";
  options.environment["XDG_CONFIG_HOME"] = "";
  const Outcome outcome = runToEnd(Sandbox::command({"defaults", "read", "no such domain"}), options);
  EXPECT_EQ(outcome.status, 8);
  options.environment["XDG_CONFIG_HOME"] = "/dev/null";
  const Outcome refused = runToEnd(Sandbox::command({"defaults", "write", "d", "k", "v"}), options);
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errorOutput, testing::Not(HasSubstr("//")));
}

TEST(CommandLine, PointsToALogThatStandsAboveIt) {
  const Sandbox sandbox;
  writeFile(sandbox.folder("plain"), "text");
  Process::Options options = sandbox.options();
  options.environment["XDG_CONFIG_HOME"] = sandbox.folder("plain");
  const Outcome outcome = runToEnd(Sandbox::command({"start", "--base", sandbox.base()}), options);
  EXPECT_EQ(outcome.status, 1);
  const auto log = outcome.errorOutput.find("cannot be written: ");
  const auto pointer = outcome.errorOutput.find("see the log above");
  ASSERT_NE(log, std::string::npos) << outcome.errorOutput;
  ASSERT_NE(pointer, std::string::npos) << outcome.errorOutput;
  EXPECT_LT(log, pointer) << outcome.errorOutput;
}

}  // namespace
}  // namespace kestrine::test
