#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/foundation/url/URL.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/foundation/value/Object.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "watcher/CDEvents.h"

namespace kestrine::test {

inline constexpr platform::FSEventStreamCreateFlags kFileEvents =
    kCDEventsDefaultEventStreamFlags | platform::kFSEventStreamCreateFlagFileEvents;

/// Preferences and a home of the test program's own, for its whole life: the process's defaults remember the folder they were made in.
class OwnFolders : public testing::Environment {
 public:
  void SetUp() override {
    folder_ = std::make_unique<TemporaryDirectory>();
    makeFolder(*folder_ / "home");
    setenv("HOME", (*folder_ / "home").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (*folder_ / "config").c_str(), 1);
    platform::setApplicationIdentifier("Ostrabyte.FileWatcherXpcService");
  }
  void TearDown() override { folder_.reset(); }

 private:
  std::unique_ptr<TemporaryDirectory> folder_;
};

inline testing::Environment* const ownFolders = testing::AddGlobalTestEnvironment(new OwnFolders);

/// The texts logged while it lives, without the prefixes of their lines.
class CapturedLog {
 public:
  CapturedLog() {
    platform::flushLog();
    testing::internal::CaptureStderr();
  }
  ~CapturedLog() {
    if (capturing_) end();
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /// Ends the capture. One entry per logged text; a text may hold line ends.
  std::vector<std::string> end() {
    platform::flushLog();
    capturing_ = false;
    const std::string captured = testing::internal::GetCapturedStderr();
    static const std::regex& prefix = *new std::regex(R"((^|\n)\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^ \n]+\[\d+:[0-9a-fx]+\] )");
    std::vector<std::string> texts;
    std::size_t begin = std::string::npos;
    for (std::sregex_iterator match(captured.begin(), captured.end(), prefix), last; match != last; ++match) {
      if (begin != std::string::npos) texts.push_back(captured.substr(begin, static_cast<std::size_t>(match->position()) - begin));
      begin = static_cast<std::size_t>(match->position() + match->length());
    }
    if (begin != std::string::npos) texts.push_back(captured.substr(begin, captured.find_last_not_of('\n') + 1 - begin));
    return texts;
  }

 private:
  bool capturing_ = true;
};

/// Those of `texts` that begin with one of `beginnings`, in order.
inline std::vector<std::string> beginningWith(const std::vector<std::string>& beginnings, const std::vector<std::string>& texts) {
  std::vector<std::string> chosen;
  for (const std::string& text : texts) {
    for (const std::string& beginning : beginnings) {
      if (text.starts_with(beginning)) {
        chosen.push_back(text);
        break;
      }
    }
  }
  return chosen;
}

/// Runs the calling thread's run loop until `condition` is true, for at most `limit`.
inline bool runLoopUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    platform::RunLoop::current()->runFor(0.01);
  }
  return true;
}

inline std::vector<platform::URL> listOfPath(const std::string& path) { return {platform::URL::fileURLWithPath(path)}; }

/// What the status registry tells in `section` now.
inline platform::Array statusSection(const std::string& section) {
  return platform::StatusRegistry::shared().snapshot().objectForKey(section).arrayValue();
}

/// A test with empty preferences, a base folder and its "Kestrine" folder.
class WatcherTest : public testing::Test {
 protected:
  static constexpr const char* kSharedDomain = "Ostrabyte.Kestrine";
  static constexpr const char* kServiceDomain = "Ostrabyte.FileWatcherXpcService";

  WatcherTest() {
    makeFolder(watchedFolder());
    defaults().removePersistentDomainForName(kSharedDomain);
    resetStatus();
  }

  static platform::UserDefaults& defaults() { return platform::UserDefaults::standardUserDefaults(); }

  [[nodiscard]] std::string watchedFolder() const { return base_ / "Kestrine"; }

  static void setBasePath(const std::string& path) {
    ASSERT_TRUE(defaults().setPersistentDomain_forName(platform::Dictionary{{"kestrinePathKey", path}}, kSharedDomain));
  }

  /// The flag as another process sees it: what is on disk.
  static platform::Object statusOnDisk() { return platform::UserDefaults(kServiceDomain).objectForKey("FileWatcherStatusKey"); }
  /// What the application does with the flag.
  static void resetStatus() { defaults().removePersistentDomainForName(kServiceDomain); }

  TemporaryDirectory base_;
};

}  // namespace kestrine::test
