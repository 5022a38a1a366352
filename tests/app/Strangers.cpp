// The command and the service among other users of the machine, who plant links, folders, files and servers in the way: as root and as an
// ordinary user, and with either way in which the service is hosted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <tuple>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

constexpr uid_t kOrdinary = 65534;
constexpr uid_t kStranger = 65533;
constexpr const char* kService = "Ostrabyte.FileWatcherXpcService";

enum class User { Own, Ordinary };

/// Surroundings of one user's. As root the tests can play others too: an ordinary user whose surroundings they are, and a stranger.
class Strangers : public testing::TestWithParam<std::tuple<User, const char*>> {
 protected:
  void SetUp() override {
    if (isOrdinary() && geteuid() != 0) GTEST_SKIP() << "left out: the same as another user, because this is not root";
    if (version()[0] != '\0') sandbox_.environment["KESTRINE_SYSTEM_VERSION"] = version();
    if (isOrdinary()) becomeOrdinary();
    // Others may look around.
    for (const char* folder : {"", "run"}) chmod(at(folder).c_str(), 0755);
  }
  void TearDown() override {
    for (const char* folder : {"run", "run/xpc"}) {
      if (fs::is_directory(at(folder))) chmod(at(folder).c_str(), 0700);
    }
    EXPECT_EQ(run({"stop"}).status, 0);
  }

  [[nodiscard]] static bool isOrdinary() { return std::get<0>(GetParam()) == User::Ordinary; }
  [[nodiscard]] static const char* version() { return std::get<1>(GetParam()); }
  [[nodiscard]] static uid_t user() { return isOrdinary() ? kOrdinary : geteuid(); }

  /// `words` as another user.
  static std::vector<std::string> as(uid_t user, std::vector<std::string> words) {
    if (user == geteuid()) return words;
    const std::string number = std::to_string(user);
    std::vector<std::string> all{"/usr/bin/env", "setpriv", "--reuid=" + number, "--regid=" + number, "--clear-groups"};
    all.insert(all.end(), words.begin(), words.end());
    return all;
  }
  [[nodiscard]] Outcome run(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{command_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runToEnd(as(user(), words), sandbox_.options());
  }
  [[nodiscard]] Outcome start() { return run({"start", "--base", sandbox_.base(), "--timeout", "30"}); }

  [[nodiscard]] std::string at(const std::string& name) const { return sandbox_.folder(name); }
  /// A folder of the user's.
  void folderOfUser(const std::string& name, mode_t mode = 0700) {
    makeFolder(at(name));
    ASSERT_EQ(chmod(at(name).c_str(), mode), 0);
    giveTo(user(), name);
  }
  void giveTo(uid_t owner, const std::string& name) {
    if (geteuid() == 0) {
      ASSERT_EQ(lchown(at(name).c_str(), owner, owner), 0);
    }
  }
  /// A link of the stranger's.
  void plant(const std::string& target, const std::string& name) {
    fs::create_symlink(target, at(name));
    giveTo(kStranger, name);
  }
  [[nodiscard]] static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
  }
  static void requireRoot() {
    if (geteuid() != 0) GTEST_SKIP() << "left out: what other users plant, because this is not root and can play nobody else";
  }

  Sandbox& sandbox() { return sandbox_; }

 private:
  // Copies of the programs, where that user can reach them.
  void becomeOrdinary() {
    makeFolder(at("bin"));
    command_ = at("bin/kestrine");
    fs::copy_file(KESTRINE_COMMAND, command_);
    fs::copy_file(KESTRINE_SERVICE, at("bin/service"));
    sandbox_.installService(at("bin/service"));
    for (const char* name : {"", "home", "config", "state", "data", "run", "base"}) giveTo(kOrdinary, name);
  }

  Sandbox sandbox_;
  std::string command_ = KESTRINE_COMMAND;
};

TEST_P(Strangers, HaveNoHandInWhatIsMadeForTheService) {
  const Outcome started = start();
  ASSERT_EQ(started.status, 0) << started.errorOutput;
  for (const char* name : {"run/xpc", "state/xpc", "config/Preferences"}) {
    struct stat status {};
    ASSERT_EQ(stat(at(name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_mode & 07777U, 0700U) << name;
    EXPECT_EQ(status.st_uid, user()) << name;
    for (const auto& each : fs::directory_iterator(at(name))) EXPECT_EQ(modeOf(each.path()) & 0022U, 0U) << each.path();
  }
}

TEST_P(Strangers, CannotLeadTheSocketElsewhere) {
  requireRoot();
  if (IsSkipped()) return;
  ASSERT_EQ(chmod(at("run").c_str(), 01777), 0);
  makeFolder(at("victim"));
  giveTo(user(), "victim");
  ASSERT_EQ(chmod(at("victim").c_str(), 0755), 0);
  plant(at("victim"), "run/xpc");
  const Outcome started = start();
  EXPECT_EQ(started.status, 7) << started.output;
  EXPECT_THAT(started.errorOutput, HasSubstr("run/xpc' is a symbolic link that user 65533 made; let XDG_RUNTIME_DIR be a folder"));
  EXPECT_TRUE(fs::is_empty(at("victim")));
  EXPECT_EQ(modeOf(at("victim")), 0755U);
  const Outcome status = run({"status"});
  EXPECT_EQ(status.status, 1) << "not 'not running': " << status.output;
  EXPECT_THAT(status.errorOutput, HasSubstr("whether the service runs cannot be told: the folder of service sockets"));
  fs::remove(at("run/xpc"));
}

TEST_P(Strangers, CannotLeadTheSocketOfAStateFolderElsewhere) {
  requireRoot();
  if (IsSkipped()) return;
  if (struct stat status{}; stat(("/run/user/" + std::to_string(user())).c_str(), &status) == 0) {
    GTEST_SKIP() << "left out: the socket in the state folder, because this user has a runtime folder that would be used in its place";
  }
  sandbox().environment["XDG_RUNTIME_DIR"] = "";
  std::string host(256, '\0');
  ASSERT_EQ(gethostname(host.data(), host.size() - 1), 0);
  host.resize(host.find('\0'));
  ASSERT_EQ(chmod(at("state").c_str(), 01777), 0);
  folderOfUser("victim", 0755);
  plant(at("victim"), "state/xpc-" + host);
  const Outcome started = start();
  EXPECT_EQ(started.status, 7) << started.output;
  EXPECT_THAT(started.errorOutput, HasSubstr("is a symbolic link that user 65533 made"));
  EXPECT_TRUE(fs::is_empty(at("victim")));
  EXPECT_EQ(modeOf(at("victim")), 0755U);
  fs::remove(at("state/xpc-" + host));
}

TEST_P(Strangers, CannotLeadTheLogIntoAnotherFile) {
  requireRoot();
  if (IsSkipped()) return;
  folderOfUser("state/xpc", 01777);
  writeFile(at("victim"), "the user's\n");
  giveTo(user(), "victim");
  plant(at("victim"), std::string("state/xpc/") + kService + ".log");
  const Outcome started = start();
  EXPECT_EQ(started.status, 0) << "a log is not worth more than the watch: " << started.errorOutput;
  ASSERT_EQ(run({"stop"}).status, 0);
  EXPECT_EQ(readFile(at("victim")), "the user's\n");
}

TEST_P(Strangers, AreNotLetInByAFolderThatEverybodyMayWriteTo) {
  folderOfUser("run/xpc", 0777);
  const Outcome started = start();
  EXPECT_EQ(started.status, 7) << started.output;
  EXPECT_THAT(started.errorOutput, HasSubstr("everybody can write to it (mode 0777)"));
  EXPECT_EQ(modeOf(at("run/xpc")), 0777U) << "it is not this program's to change";
  EXPECT_TRUE(fs::is_empty(at("run/xpc")));
  EXPECT_EQ(run({"status"}).status, 1);
  EXPECT_EQ(run({"stop"}).status, 1);
}

TEST_P(Strangers, AreNotServedInARuntimeFolderOfTheirs) {
  // Root's own is not an ordinary user's, and the other way round.
  if (user() == 0) {
    makeFolder(at("theirs"));
    ASSERT_EQ(chmod(at("theirs").c_str(), 0700), 0);
    giveTo(kStranger, "theirs");
  }
  sandbox().environment["XDG_RUNTIME_DIR"] = user() == 0 ? at("theirs") : "/usr";
  const Outcome started = start();
  EXPECT_EQ(started.status, 7) << started.output;
  EXPECT_THAT(started.errorOutput, HasSubstr("XDG_RUNTIME_DIR belongs to " + std::string(user() == 0 ? "user 65533" : "root")));
  EXPECT_THAT(started.errorOutput, HasSubstr("or unset it"));
  if (user() == 0) {
    EXPECT_TRUE(fs::is_empty(at("theirs")));
  }
  sandbox().environment["XDG_RUNTIME_DIR"] = "run";
  const Outcome relative = start();
  EXPECT_EQ(relative.status, 7) << relative.output;
  EXPECT_THAT(relative.errorOutput, HasSubstr("XDG_RUNTIME_DIR is a relative path"));
  sandbox().environment["XDG_RUNTIME_DIR"] = at("run");
}

TEST_P(Strangers, DescribeNoService) {
  ASSERT_EQ(chmod(at("data/xpc-services").c_str(), 0777), 0);
  const Outcome started = start();
  EXPECT_EQ(started.status, 7) << started.output;
  EXPECT_THAT(started.errorOutput, HasSubstr("everybody can write to it (mode 0777)"));
  ASSERT_EQ(chmod(at("data/xpc-services").c_str(), 0755), 0);
  const std::string description = at(std::string("data/xpc-services/") + kService + ".plist");
  ASSERT_EQ(chmod(description.c_str(), 0666), 0);
  EXPECT_THAT(start().errorOutput, HasSubstr("plist' is not safe: everybody can write to it (mode 0666)"));
  // A folder in which nobody has put one hides none that comes later on the way.
  ASSERT_EQ(chmod(description.c_str(), 0644), 0);
  folderOfUser("open", 0777);
  sandbox().environment["XDG_DATA_DIRS"] = at("data");
  sandbox().environment["XDG_DATA_HOME"] = at("open");
  const Outcome last = start();
  EXPECT_EQ(last.status, 0) << last.errorOutput;
}

TEST_P(Strangers, SayNothingAboutTheFolderThatIsWatched) {
  ASSERT_EQ(start().status, 0);
  ASSERT_EQ(run({"stop"}).status, 0);
  ASSERT_EQ(chmod(sandbox().preferences().c_str(), 0777), 0);
  const Outcome started = run({"start", "--timeout", "30"});
  EXPECT_EQ(started.status, 5) << started.output;
  ASSERT_EQ(chmod(sandbox().preferences().c_str(), 0700), 0);
  const std::string file = sandbox().preferences() + "/Ostrabyte.Kestrine.plist";
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  EXPECT_EQ(run({"start", "--timeout", "30"}).status, 5);
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  EXPECT_EQ(run({"start", "--timeout", "30"}).status, 0);
}

TEST_P(Strangers, AreNotBelievedWhenTheyAnswer) {
  requireRoot();
  if (IsSkipped()) return;
  // A lock file of the user's own that is held, so that a service seems to run, and a stranger's server beside it.
  folderOfUser("run/xpc", 0777);
  const std::string script = KESTRINE_SOURCE_DIR "/tests/app/false_service.py";
  const std::string socket = at(std::string("run/xpc/") + kService);
  Process server(as(kStranger, {"/usr/bin/env", "python3", script, "serve", socket, sandbox().watched()}), sandbox().options());
  ASSERT_TRUE(server.waitForOutput("ready\n")) << server.errorOutput();
  ASSERT_EQ(chmod(at("run/xpc").c_str(), 0700), 0);
  Process holder(as(user(), {"/usr/bin/env", "python3", script, "hold", at(std::string("run/xpc/.") + kService + ".lock")}),
                 sandbox().options());
  ASSERT_TRUE(holder.waitForOutput("ready\n")) << holder.errorOutput();
  const Outcome started = start();
  EXPECT_NE(started.status, 0) << started.output;
  EXPECT_THAT(started.output, Not(HasSubstr("watched already")));
  EXPECT_THAT(started.errorOutput, HasSubstr("is neither this user nor root, and is not believed"));
  EXPECT_THAT(run({"status"}).output, Not(HasSubstr("standing")));
  EXPECT_THAT(server.output(), Not(HasSubstr("asked"))) << "it was told something";
  holder.signal(SIGKILL);
  server.signal(SIGKILL);
  holder.wait();
  fs::remove(socket);
}

TEST_P(Strangers, HaveNobodyEndedByALockFile) {
  Process victim(as(user(), {"sleep", "1000"}), sandbox().options());
  folderOfUser("run/xpc");
  const std::string script = KESTRINE_SOURCE_DIR "/tests/app/false_service.py";
  const std::string lock = at(std::string("run/xpc/.") + kService + ".lock");
  // The lock is held by one process and names another.
  Process holder(as(user(), {"/usr/bin/env", "python3", script, "hold", lock, std::to_string(victim.pid())}), sandbox().options());
  ASSERT_TRUE(holder.waitForOutput("ready\n")) << holder.errorOutput();
  const Outcome stopped = run({"stop", "--timeout", "5"});
  EXPECT_EQ(stopped.status, 1) << stopped.output;
  EXPECT_THAT(stopped.errorOutput, HasSubstr("is not ended: the service's lock file names it, but it does not hold the lock"));
  EXPECT_TRUE(victim.isRunning());
  EXPECT_TRUE(holder.isRunning());
  holder.signal(SIGKILL);
  holder.wait();
  if (geteuid() != 0) return;
  // A lock file that is a stranger's is not even read.
  fs::remove(lock);
  ASSERT_EQ(chmod(at("run/xpc").c_str(), 0777), 0);
  Process theirs(as(kStranger, {"/usr/bin/env", "python3", script, "hold", lock, std::to_string(victim.pid())}), sandbox().options());
  ASSERT_TRUE(theirs.waitForOutput("ready\n")) << theirs.errorOutput();
  ASSERT_EQ(chmod(at("run/xpc").c_str(), 0700), 0);
  const Outcome refused = run({"stop", "--timeout", "5"});
  EXPECT_EQ(refused.status, 1) << refused.output;
  EXPECT_THAT(refused.errorOutput, AnyOf(HasSubstr("it is not this user's alone"), HasSubstr("Permission denied")));
  EXPECT_TRUE(victim.isRunning());
  theirs.signal(SIGKILL);
  theirs.wait();
  fs::remove(lock);
}

TEST_P(Strangers, DoNotHoldUpTheEndByAPipeForALog) {
  folderOfUser("state/xpc");
  const std::string log = at(std::string("state/xpc/") + kService + ".log");
  ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
  giveTo(user(), std::string("state/xpc/") + kService + ".log");
  const Outcome started = start();
  ASSERT_EQ(started.status, 0) << started.errorOutput;
  const Outcome stopped = run({"stop"});
  EXPECT_EQ(stopped.status, 0) << stopped.errorOutput;
}

TEST_P(Strangers, AreNotTakenForNobody) {
  if (user() == 0) GTEST_SKIP() << "left out: a folder that may not be looked at, because root may look at each";
  ASSERT_EQ(start().status, 0);
  ASSERT_EQ(chmod(at("run").c_str(), 0), 0);
  for (const char* command : {"status", "stop"}) {
    const Outcome outcome = run({command});
    EXPECT_EQ(outcome.status, 1) << outcome.output;
    EXPECT_THAT(outcome.output, Not(HasSubstr("not running")));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("Permission denied"));
  }
  ASSERT_EQ(chmod(at("run").c_str(), 0700), 0);
  EXPECT_EQ(run({"status"}).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Each, Strangers, testing::Combine(testing::Values(User::Own, User::Ordinary), testing::Values("", "10.7.5")),
                         [](const auto& each) {
                           return std::string(std::get<0>(each.param) == User::Own ? "Own" : "Ordinary") +
                                  (std::get<1>(each.param)[0] == '\0' ? "Listening" : "ByMessages");
                         });

}  // namespace
}  // namespace kestrine::test
