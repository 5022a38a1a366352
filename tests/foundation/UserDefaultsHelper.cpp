#include "tests/foundation/UserDefaultsHelper.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/UserDefaultsModel.h"

namespace kestrine::test {

namespace {

using platform::Object;
using platform::UserDefaults;

constexpr uid_t kNobody = 65534;

void say(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

std::string yesOrNo(bool value) { return value ? "yes" : "no"; }

Object integer(long value) { return Object::numberWithLongLong(value); }

/// Writes for ever, each time a text as long as the number beside it says, so that a reader can tell half a file. The count is the bound of
/// the lengths.
void writeForEver(const HelperJob& job) {
  UserDefaults defaults("killed", job.folder);
  for (long round = 0;; ++round) {
    const long length = round * 7919 % job.count;
    defaults.setObject_forKey(integer(length), "length");
    defaults.setObject_forKey(std::string(static_cast<std::size_t>(length), 'x'), "text");
    defaults.synchronize();
    if (round == 0) say("writing");
  }
}

/// Raises the flag for each event, one to four times as fast as it can, and goes on when the other side has seen it. Each event also writes
/// another key, so that the file changes while the other side looks for the flag.
void raiseFlags(const HelperJob& job) {
  const int file = open((job.folder + "/rounds").c_str(), O_RDWR | O_CLOEXEC);
  auto* shared = static_cast<SharedRounds*>(mmap(nullptr, sizeof(SharedRounds), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  if (shared == MAP_FAILED) throw std::runtime_error("no shared memory");
  UserDefaults defaults("flag", job.folder);
  for (int round = 1; round <= job.count; ++round) {
    std::atomic_ref(shared->events) = round;
    defaults.setObject_forKey(integer(round), "round");
    if (!defaults.synchronize()) throw std::runtime_error("not written");
    for (int times = 0; times <= round % 4; ++times) {
      defaults.setObject_forKey("1", "FileWatcherStatusKey");
      if (!defaults.synchronize()) throw std::runtime_error("not written");
    }
    while (std::atomic_ref(shared->covered) < round) sched_yield();
  }
  say("raised");
}

/// Tries a write that cannot succeed several times, then one that can.
void writeWithoutRights(const HelperJob& job) {
  UserDefaults defaults("refused", job.folder);
  defaults.setObject_forKey("new", "key");
  for (int i = 0; i < 3; ++i) say("written: " + yesOrNo(defaults.synchronize()));
  say("remembered: " + defaults.objectForKey("key").description());
  bool failed = false;
  const Object read = defaults.exchange(
      "old", [](const Object&) { return Object("changed"); }, &failed);
  say("exchange failed: " + yesOrNo(failed) + ", read: " + read.description());
  say("domain set: " + yesOrNo(defaults.setPersistentDomain_forName(platform::Dictionary{{"a", "b"}}, "other")));
  chmod(job.folder.c_str(), 0700);
  say("written with rights: " + yesOrNo(defaults.synchronize()));
  chmod(job.folder.c_str(), 0500);
  defaults.setObject_forKey("newer", "key");
  say("written again: " + yesOrNo(defaults.synchronize()));
}

void readWithoutRights(const HelperJob& job) {
  UserDefaults defaults("unreadable", job.folder);
  for (int i = 0; i < 3; ++i) say("read: " + defaults.objectForKey("key").description());
  defaults.setObject_forKey("new", "key");
  say("written: " + yesOrNo(defaults.synchronize()));
}

void readDomainsWithoutRights(const HelperJob& job) {
  using platform::PreferencesError;
  constexpr const char* kKinds[] = {"no such domain", "refused", "damaged"};
  for (const char* domain : {"closed", "damaged"}) {
    const auto values = platform::readPreferencesDomain(domain, job.folder);
    say(std::string(domain) + ": " +
        (values ? "read" : kKinds[static_cast<int>(values.error().kind)] + std::string(", ") + values.error().reason));
  }
}

void listWithoutRights(const HelperJob& job) {
  for (int i = 0; i < 2; ++i) say("domains: " + std::to_string(UserDefaults("domain", job.folder).persistentDomainNames().size()));
}

void writeBelowAClosedFolder(const HelperJob& job) {
  UserDefaults defaults("domain", job.folder + "/a/b");
  defaults.setObject_forKey("value", "key");
  say("written: " + yesOrNo(defaults.synchronize()));
}

/// On a disk, or with a limit, that holds a small file and not a large one.
void writeTooMuch(UserDefaults& defaults) {
  defaults.setObject_forKey("small", "key");
  say("small written: " + yesOrNo(defaults.synchronize()));
  defaults.setObject_forKey(std::string(200000, 'x'), "large");
  for (int i = 0; i < 3; ++i) say("large written: " + yesOrNo(defaults.synchronize()));
  say("still there: " + defaults.objectForKey("key").description());
}

void fillDisk(const HelperJob& job) {
  UserDefaults defaults("full", job.folder);
  writeTooMuch(defaults);
  defaults.removeObjectForKey("large");
  defaults.setObject_forKey("smaller", "key");
  say("small written again: " + yesOrNo(defaults.synchronize()));
  defaults.setObject_forKey(std::string(200000, 'x'), "large");
  say("large written again: " + yesOrNo(defaults.synchronize()));
}

void exceedLimit(const HelperJob& job) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlim_t former = limit.rlim_cur;
  limit.rlim_cur = 65536;
  setrlimit(RLIMIT_FSIZE, &limit);
  UserDefaults defaults("full", job.folder);
  writeTooMuch(defaults);
  limit.rlim_cur = former;
  setrlimit(RLIMIT_FSIZE, &limit);
  say("large written without limit: " + yesOrNo(defaults.synchronize()));
}

/// As an editor that opens the file for writing, truncates it and writes it in pieces: "1" to `count`, and takes its time in between.
void editInPlace(const HelperJob& job) {
  for (int round = 1; round <= job.count; ++round) {
    const std::string text = "<plist><dict><key>key</key><string>" + std::to_string(round) + "</string></dict></plist>";
    const int file = open((job.folder + "/edited.plist").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (file < 0) throw std::runtime_error("the file is not there");
    usleep(500);
    for (std::size_t at = 0; at < text.size(); at += 20) {
      const auto piece = text.substr(at, 20);
      if (write(file, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) throw std::runtime_error("not written");
      usleep(300);
    }
    close(file);
  }
}

/// Is stopped with the lock, and when it goes on gives it back.
void stopWithTheLock(const HelperJob& job) {
  UserDefaults defaults("locked", job.folder);
  defaults.exchange("key", [](const Object&) {
    say("holding");
    raise(SIGSTOP);
    return Object();
  });
}

/// Makes a child while it has the lock, says its number and waits to be killed. So does the child.
void forkWithTheLock(const HelperJob& job) {
  UserDefaults defaults("locked", job.folder);
  defaults.exchange("key", [](const Object&) {
    const pid_t child = fork();
    if (child != 0) say(std::to_string(child) + "\nforked");
    while (true) pause();
    return Object();
  });
}

/// One write that the limit of file sizes stops, with the signal as every program finds it.
void exceedLimitUnprepared(const HelperJob& job) {
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = 4096;
  setrlimit(RLIMIT_FSIZE, &limit);
  UserDefaults defaults("full", job.folder);
  defaults.setObject_forKey(std::string(200000, 'x'), "large");
  say("written: " + yesOrNo(defaults.synchronize()));
  say(defaults.lastError() ? defaults.lastError()->reason : "no reason");
}

/// Writes one key as the user that it becomes.
void writeOneKey(const HelperJob& job) {
  UserDefaults defaults("domain", job.folder);
  defaults.setObject_forKey("of the user", "user");
  say("written: " + yesOrNo(defaults.synchronize()));
}

constexpr struct {
  const char* name;
  void (*run)(const HelperJob&);
} kJobs[] = {
    {"workOnTheModel", workOnTheModel},
    {"cutThePower", cutThePower},
    {"editInPlace", editInPlace},
    {"stopWithTheLock", stopWithTheLock},
    {"forkWithTheLock", forkWithTheLock},
    {"exceedLimitUnprepared", exceedLimitUnprepared},
    {"writeOneKey", writeOneKey},
    {"writeForEver", writeForEver},
    {"raiseFlags", raiseFlags},
    {"writeWithoutRights", writeWithoutRights},
    {"readWithoutRights", readWithoutRights},
    {"readDomainsWithoutRights", readDomainsWithoutRights},
    {"listWithoutRights", listWithoutRights},
    {"writeBelowAClosedFolder", writeBelowAClosedFolder},
    {"fillDisk", fillDisk},
    {"exceedLimit", exceedLimit},
};

std::string environmentVariable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// Before main, so that no test runs in a helper.
[[maybe_unused]] const bool helped = [] {
  HelperJob job;
  job.name = environmentVariable("KESTRINE_HELPER_JOB");
  if (job.name.empty()) return false;
  job.folder = environmentVariable("KESTRINE_HELPER_FOLDER");
  job.count = std::atoi(environmentVariable("KESTRINE_HELPER_COUNT").c_str());
  if (geteuid() == 0 && environmentVariable("KESTRINE_HELPER_UNPRIVILEGED") == "yes") {
    if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) _exit(3);
  }
  for (const auto& each : kJobs) {
    if (job.name != each.name) continue;
    try {
      each.run(job);
    } catch (const std::exception& exception) {
      say(std::string("exception: ") + exception.what());
      platform::flushLog();
      _exit(1);
    }
    platform::flushLog();
    _exit(0);
  }
  _exit(2);
}();

}  // namespace

std::vector<std::string> helperCommand() {
  char path[4096] = {};
  if (readlink("/proc/self/exe", path, sizeof path - 1) < 0) throw std::runtime_error("no path of the test program");
  return {path};
}

std::map<std::string, std::string> helperEnvironment(const HelperJob& job) {
  return {{"KESTRINE_HELPER_JOB", job.name},
          {"KESTRINE_HELPER_FOLDER", job.folder},
          {"KESTRINE_HELPER_COUNT", std::to_string(job.count)},
          {"KESTRINE_HELPER_UNPRIVILEGED", job.unprivileged ? "yes" : "no"}};
}

std::unique_ptr<Process> startHelper(const HelperJob& job) {
  Process::Options options;
  options.environment = helperEnvironment(job);
  return std::make_unique<Process>(helperCommand(), options);
}

Outcome runHelper(const HelperJob& job) {
  Process::Options options;
  options.environment = helperEnvironment(job);
  return runToEnd(helperCommand(), options);
}

void giveToUnprivileged(const std::string& folder, unsigned permissions) {
  if (geteuid() == 0 && chown(folder.c_str(), kNobody, kNobody) != 0) throw std::runtime_error("chown");
  if (chmod(folder.c_str(), permissions) != 0) throw std::runtime_error("chmod");
}

void useMemoryForTemporaryFolders() {
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

int occurrences(const std::string& text, const std::string& piece) {
  int count = 0;
  for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) ++count;
  return count;
}

}  // namespace kestrine::test
