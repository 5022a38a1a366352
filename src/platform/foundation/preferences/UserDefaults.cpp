#include "platform/foundation/preferences/UserDefaults.h"

#include <algorithm>
#include <map>
#include <system_error>
#include <utility>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/PreferencesFile.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/preferences/PreferencesReasons.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

/// Changes by key; nil removes the key.
using Changes = std::map<std::string, Object, std::less<>>;

bool holds(const Object& values, const Changes& changes) {
  return std::all_of(changes.begin(), changes.end(),
                     [&](const auto& change) { return values.objectForKey(change.first) == change.second; });
}

Object merged(const Object& values, const Changes& changes) {
  Dictionary result = values.dictionaryValue();
  for (const auto& [key, value] : changes) {
    if (value.isNil()) {
      result.erase(key);
    } else {
      result.insert_or_assign(key, value);
    }
  }
  return result;
}

/// Puts the changes in, which must stay until it is called, unless they are there.
PreferencesFile::Change putIn(const Changes& changes) {
  return [&changes](const Object& values) -> std::optional<Object> {
    if (holds(values, changes)) return std::nullopt;
    return merged(values, changes);
  };
}

}  // namespace

class UserDefaults::Impl {
 public:
  Impl(std::string folder, std::string_view domain) : folder_(std::move(folder)), file_(folder_, domain) {}

  [[nodiscard]] const std::string& folder() const { return folder_; }

  Object value(std::string_view key) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (const auto change = changes_.find(key); change != changes_.end()) return change->second;
    refresh();
    return onDisk_.values.objectForKey(key);
  }

  void remember(Object value, std::string_view key) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    changes_.insert_or_assign(std::string(key), std::move(value));
  }

  bool synchronize() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (changes_.empty()) return refresh();
    if (!isFresh() || !holds(onDisk_.values, changes_)) {
      auto after = file_.update(putIn(changes_));
      if (!after) return false;
      onDisk_ = std::move(*after);
    }
    changes_.clear();
    return true;
  }

  Object exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    Object found;
    bool asked = false;
    bool decided = false;
    auto after = file_.update([&](const Object& values) -> std::optional<Object> {
      found = values.objectForKey(key);
      asked = true;
      const Object wanted = decide(found);
      if (wanted.isNil()) return std::nullopt;
      decided = true;
      return putIn({{std::string(key), propertyListValue(wanted)}})(values);
    });
    if (failed != nullptr) *failed = !after;
    if (after) {
      onDisk_ = std::move(*after);
      if (const auto older = changes_.find(key); decided && older != changes_.end()) changes_.erase(older);
    } else if (!asked) {
      refresh();
      found = onDisk_.values.objectForKey(key);
    }
    return found;
  }

 private:
  [[nodiscard]] bool isFresh() const REQUIRES(mutex_) { return onDisk_.version.isStillAt(file_.path()); }

  bool refresh() REQUIRES(mutex_) {
    if (isFresh()) return true;
    auto now = file_.readOrSay();
    if (now) onDisk_ = std::move(*now);
    return now.has_value();
  }

  const std::string folder_;
  const PreferencesFile file_;
  Mutex mutex_;
  PreferencesFile::Contents onDisk_ GUARDED_BY(mutex_);
  Changes changes_ GUARDED_BY(mutex_);
};

UserDefaults& UserDefaults::standardUserDefaults() {
  static UserDefaults& defaults = *new UserDefaults(applicationIdentifier());
  return defaults;
}

UserDefaults::UserDefaults(std::string domainName, std::string folder) {
  requirePreferencesDomainName(domainName);
  impl_ = std::make_unique<Impl>(folder.empty() ? preferencesFolder() : std::move(folder), domainName);
}

UserDefaults::~UserDefaults() = default;

Object UserDefaults::persistentDomainForName(std::string_view name) {
  if (!isPreferencesDomainName(name)) return nullptr;
  const auto contents = PreferencesFile(impl_->folder(), name).readOrSay();
  return contents ? contents->values : Object();
}

bool UserDefaults::setPersistentDomain_forName(const Object& domain, std::string_view name) {
  requirePreferencesDomainName(name);
  if (!domain.isDictionary()) throw Exception(NSInvalidArgumentException, "a preferences domain is a dictionary");
  const Object values = propertyListValue(domain);
  const auto replace = [&values](const Object& found) -> std::optional<Object> {
    if (found == values) return std::nullopt;
    return values;
  };
  return PreferencesFile(impl_->folder(), name).update(replace).has_value();
}

bool UserDefaults::removePersistentDomainForName(std::string_view name) {
  requirePreferencesDomainName(name);
  const PreferencesFile file(impl_->folder(), name);
  if (FileVersion(FileHandle()).isStillAt(file.path())) return true;
  return file.update([](const Object&) { return std::optional<Object>(std::in_place); }).has_value();
}

std::vector<std::string> UserDefaults::persistentDomainNames() const {
  constexpr std::string_view kSuffix = ".plist";
  std::vector<std::string> found;
  try {
    for (auto& name : PreferencesFolder(impl_->folder(), false).names()) {
      if (name.size() > kSuffix.size() && name.ends_with(kSuffix)) found.push_back(name.substr(0, name.size() - kSuffix.size()));
    }
    PreferencesReasons::shared().succeeded(impl_->folder(), PreferencesReasons::Operation::Read);
  } catch (const std::system_error& error) {
    // No folder: no domains.
    if (error.code() != std::errc::no_such_file_or_directory && error.code() != std::errc::not_a_directory)
      PreferencesReasons::shared().failed(impl_->folder(), PreferencesReasons::Operation::Read, error.what());
  }
  std::sort(found.begin(), found.end());
  return found;
}

Object UserDefaults::objectForKey(std::string_view key) { return impl_->value(key); }

void UserDefaults::setObject_forKey(const Object& value, std::string_view key) {
  requirePropertyListText(key);
  impl_->remember(value.isNil() ? value : propertyListValue(value), key);
}

void UserDefaults::removeObjectForKey(std::string_view key) { impl_->remember(nullptr, key); }

bool UserDefaults::synchronize() { return impl_->synchronize(); }

Object UserDefaults::exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed) {
  requirePropertyListText(key);
  return impl_->exchange(key, decide, failed);
}

}  // namespace platform
