#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsModel.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

using platform::Object;
using platform::UserDefaults;
using Account = StoreLedger::Account;

constexpr const char* kDomain = "model";
constexpr long kRemoval = 5;

std::string nameOfKey(int key) { return "key " + std::to_string(key); }
/// Texts of another length each, so that an edit in place leaves rests of the former one.
Object valueOf(long number) {
  if (number % kRemoval == 0) return nullptr;
  return std::to_string(number) + std::string(static_cast<std::size_t>(number % 97), 'x');
}

/// Whether some number from `acknowledged` to `begun` has this value.
bool isOneOf(const Object& value, long acknowledged, long begun) {
  for (long number = acknowledged; number <= begun; ++number) {
    if (value == valueOf(number)) return true;
  }
  return false;
}

void fault(StoreLedger& ledger, const std::string& text) {
  if (ledger.faults.fetch_add(1) == 0) std::snprintf(ledger.fault, sizeof ledger.fault, "%s", text.c_str());
}

/// The rules for one read of one account: `read` may find nothing for a moment, while the file is edited.
template <class Read, class Holds>
void check(StoreLedger& ledger, UserDefaults& reader, const std::string& what, const Account& account, const Read& read,
           const Holds& holds) {
  const long acknowledged = account.acknowledged;
  const Object value = read();
  const long begun = account.begun;
  ++ledger.checks;
  // The last good values are in force then, which may be older.
  if (reader.lastError()) {
    ++ledger.unreadable;
  } else if (!holds(value, acknowledged, begun)) {
    fault(ledger,
          what + " is " + value.description() + ", acknowledged " + std::to_string(acknowledged) + ", begun " + std::to_string(begun));
  }
}

void checkKey(StoreLedger& ledger, UserDefaults& reader, int key) {
  check(
      ledger, reader, nameOfKey(key), ledger.keys[key], [&] { return reader.objectForKey(nameOfKey(key)); }, isOneOf);
}

void checkCounter(StoreLedger& ledger, UserDefaults& reader, const char* name, const Account& account) {
  check(
      ledger, reader, name, account, [&] { return reader.objectForKey(name); },
      [](const Object& value, long acknowledged, long begun) {
        return value.longLongValue() >= acknowledged && value.longLongValue() <= begun;
      });
}

/// Adds one to a counter by the store itself.
void addOne(StoreLedger& ledger, UserDefaults& defaults) {
  ++ledger.exchanged.begun;
  bool failed = true;
  defaults.exchange(
      "exchanged", [](const Object& value) { return Object::numberWithLongLong(value.longLongValue() + 1); }, &failed);
  if (failed) return fault(ledger, "an exchange failed: " + (defaults.lastError() ? defaults.lastError()->reason : "no reason"));
  ++ledger.exchanged.acknowledged;
}

/// One thread's share of a process.
class Worker {
 public:
  Worker(const HelperJob& job, StoreLedger& ledger, UserDefaults& shared, int thread)
      : folder_(job.folder),
        ledger_(ledger),
        process_(job.count),
        shared_(shared),
        own_(kDomain, job.folder),
        reader_(kDomain, job.folder),
        firstKey_((job.count * StoreLedger::kThreads + thread) * StoreLedger::kKeysEach),
        random_(static_cast<unsigned>(getpid()) * 31U + static_cast<unsigned>(thread)) {}

  void run() {
    while (ledger_.operations.fetch_add(1) < ledger_.goal && ledger_.faults == 0) {
      const auto choice = random_() % 100;
      if (choice < 45) {
        writeKeys();
      } else if (choice < 60) {
        addOne(ledger_, random_() % 2 == 0 ? shared_ : own_);
      } else if (choice < 92) {
        checkKey(ledger_, reader_, static_cast<int>(random_() % StoreLedger::kKeys));
      } else if (choice < 94) {
        checkCounter(ledger_, reader_, "exchanged", ledger_.exchanged);
        checkCounter(ledger_, reader_, "edited", ledger_.edited);
      } else if (choice < 96) {
        edit(true);
      } else if (choice < 98) {
        edit(false);
      } else {
        forkOff();
      }
    }
  }

 private:
  void writeKeys() {
    UserDefaults& defaults = random_() % 2 == 0 ? shared_ : own_;
    std::vector<std::pair<int, long>> begun;
    for (unsigned left = 1 + random_() % 2; left > 0; --left) {
      const int key = firstKey_ + static_cast<int>(random_() % StoreLedger::kKeysEach);
      const long number = ++ledger_.keys[key].begun;
      defaults.setObject_forKey(valueOf(number), nameOfKey(key));
      begun.emplace_back(key, number);
    }
    if (!defaults.synchronize())
      return fault(ledger_, "synchronize failed: " + (defaults.lastError() ? defaults.lastError()->reason : "no reason"));
    for (const auto& [key, number] : begun) ledger_.keys[key].acknowledged = number;
  }

  /// As a program of another language does that takes the lock but knows nothing of temporary files; or one that does.
  void edit(bool inPlace) {
    const platform::FileHandle lock(open((folder_ + "/model.plist.lock").c_str(), O_RDONLY | O_CLOEXEC));
    if (!lock.isOpen()) return;
    // A process of ours may be stopped with the lock; who is killed gives it back.
    if (!eventually([&] { return flock(lock.fileDescriptor(), LOCK_EX | LOCK_NB) == 0; }))
      return fault(ledger_, "an editor never got the lock");
    const std::string path = folder_ + "/model.plist";
    if (inPlace) ++ledger_.editing[process_];
    try {
      platform::Dictionary values = platform::readPropertyList(readFile(path)).dictionaryValue();
      ++ledger_.edited.begun;
      values.insert_or_assign(std::string("edited"),
                              Object::numberWithLongLong(values.contains("edited") ? values.at("edited").longLongValue() + 1 : 1));
      const std::string text = platform::writePropertyList(values);
      inPlace ? writeInPieces(path, text) : replace(path, text);
      ++ledger_.edited.acknowledged;
    } catch (const std::exception& problem) {
      // Before the first write there is no file.
      if (access(path.c_str(), F_OK) == 0) fault(ledger_, std::string("an editor found ") + problem.what());
    }
    if (inPlace) --ledger_.editing[process_];
    flock(lock.fileDescriptor(), LOCK_UN);
  }

  void writeInPieces(const std::string& path, const std::string& text) {
    const platform::FileHandle file(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    const std::size_t piece = text.size() / (1 + random_() % 3) + 1;
    for (std::size_t at = 0; at < text.size(); at += piece) {
      const std::string part = text.substr(at, piece);
      if (::write(file.fileDescriptor(), part.data(), part.size()) != static_cast<ssize_t>(part.size()))
        throw std::runtime_error("no room");
      std::this_thread::yield();
    }
  }

  void replace(const std::string& path, const std::string& text) {
    const std::string other = path + ".of an editor " + std::to_string(getpid()) + " " + std::to_string(firstKey_);
    writeFile(other, text);
    if (std::rename(other.c_str(), path.c_str()) != 0) throw std::runtime_error("no new name");
  }

  /// A child writes through the store that it finds, while the other threads of its parent are in the midst of theirs.
  void forkOff() {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) return;
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(0);
      addOne(ledger_, shared_);
      addOne(ledger_, own_);
      checkKey(ledger_, reader_, firstKey_);
      _exit(0);
    }
    int status = 0;
    if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
      fault(ledger_, "a child made by fork hangs");
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
  }

  const std::string folder_;
  StoreLedger& ledger_;
  const int process_;
  UserDefaults& shared_;
  UserDefaults own_;
  UserDefaults reader_;
  const int firstKey_;
  std::minstd_rand random_;
};

}  // namespace

StoreLedger& storeLedger(const std::string& folder) {
  const platform::FileHandle file(open((folder + "/ledger").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (ftruncate(file.fileDescriptor(), sizeof(StoreLedger)) != 0) throw std::runtime_error("no room for the ledger");
  void* memory = mmap(nullptr, sizeof(StoreLedger), PROT_READ | PROT_WRITE, MAP_SHARED, file.fileDescriptor(), 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return *static_cast<StoreLedger*>(memory);
}

void workOnTheModel(const HelperJob& job) {
  // No time is tested here, and the machine may be busy.
  platform::setPreferencesLimits({.lock = kPatience, .lockSaid = kPatience});
  StoreLedger& ledger = storeLedger(job.folder);
  UserDefaults shared(kDomain, job.folder);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < StoreLedger::kThreads; ++thread) {
    threads.emplace_back([&, thread] { Worker(job, ledger, shared, thread).run(); });
  }
  for (auto& thread : threads) thread.join();
}

void checkTheModel(const std::string& folder, StoreLedger& ledger) {
  UserDefaults reader(kDomain, folder);
  for (int key = 0; key < StoreLedger::kKeys; ++key) checkKey(ledger, reader, key);
  checkCounter(ledger, reader, "exchanged", ledger.exchanged);
  checkCounter(ledger, reader, "edited", ledger.edited);
}

}  // namespace kestrine::test
