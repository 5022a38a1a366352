#include "platform/foundation/preferences/UserDefaults.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/Forks.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/PreferencesFile.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/preferences/PreferencesLimits.h"
#include "platform/foundation/preferences/StorableValue.h"
#include "platform/foundation/preferences/UserDefaultsState.h"

namespace platform {

class UserDefaults::Impl {
 public:
  Impl(std::string folder, std::string domain) : folder_(std::move(folder)), domain_(std::move(domain)) {}
  ~Impl() { state_.destroy(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  [[nodiscard]] const std::string& folder() const { return folder_; }
  [[nodiscard]] UserDefaultsState& state() {
    return state_.get([this] { return std::make_unique<UserDefaultsState>(folder_, domain_); });
  }

  /// Changes another domain, of which nothing is remembered.
  bool update(std::string_view name, const PreferencesFile::Change& change) {
    const PreferencesFile file(folder_, name);
    const auto outcome = file.update(change, nullptr, PreferencesFile::Clock::now() + preferencesLimits().lock);
    return state().noteWrite(file.path(), outcome.error);
  }

 private:
  const std::string folder_;
  const std::string domain_;
  PerProcess<UserDefaultsState> state_;
};

UserDefaults& UserDefaults::standardUserDefaults() {
  static constinit std::atomic<UserDefaults*> standard = nullptr;
  UserDefaults* defaults = standard.load(std::memory_order_acquire);
  if (defaults != nullptr) return *defaults;
  auto mine = std::make_unique<UserDefaults>(applicationIdentifier());
  if (standard.compare_exchange_strong(defaults, mine.get())) return *mine.release();
  return *defaults;
}

UserDefaults::UserDefaults(std::string domainName, std::string folder) {
  requirePreferencesDomainName(domainName);
  impl_ = std::make_unique<Impl>(folder.empty() ? preferencesFolder() : std::move(folder), std::move(domainName));
}

UserDefaults::~UserDefaults() = default;

Object UserDefaults::persistentDomainForName(std::string_view name) {
  if (!isPreferencesDomainName(name)) return nullptr;
  const PreferencesFile file(impl_->folder(), name);
  const auto reading = file.readPatiently();
  impl_->state().noteRead(file.path(), reading.error);
  return reading.contents ? reading.contents->values : Object();
}

bool UserDefaults::setPersistentDomain_forName(const Object& domain, std::string_view name) {
  requirePreferencesDomainName(name);
  if (!domain.isDictionary()) throw Exception(NSInvalidArgumentException, "a preferences domain is a dictionary");
  const Object values = propertyListValue(domain);
  return impl_->update(
      name, [&values](const Object& found) { return found == values ? PreferencesDecision::keep() : PreferencesDecision::put(values); });
}

bool UserDefaults::removePersistentDomainForName(std::string_view name) {
  requirePreferencesDomainName(name);
  const PreferencesFile file(impl_->folder(), name);
  PreferencesContents nothing;
  nothing.version = FileVersion(FileHandle());
  if (nothing.version.compare(file.path()) == FileVersion::Answer::Same) return impl_->state().noteWrite(file.path(), file.flush(nothing));
  return impl_->update(name, [](const Object&) { return PreferencesDecision::put(nullptr); });
}

std::vector<std::string> UserDefaults::persistentDomainNames() const {
  constexpr std::string_view kSuffix = ".plist";
  std::vector<std::string> found;
  std::optional<PreferencesError> problem;
  try {
    for (auto& name : PreferencesFolder(impl_->folder(), false).names()) {
      if (name.size() > kSuffix.size() && name.ends_with(kSuffix)) found.push_back(name.substr(0, name.size() - kSuffix.size()));
    }
  } catch (const std::system_error& error) {
    // No folder: no domains.
    if (error.code() != std::errc::no_such_file_or_directory && error.code() != std::errc::not_a_directory)
      problem = PreferencesError{PreferencesError::Kind::Refused, error.what()};
  } catch (const PreferencesFailure& failure) {
    problem = failure.error();
  }
  impl_->state().noteRead(impl_->folder(), problem);
  std::sort(found.begin(), found.end());
  return found;
}

Object UserDefaults::objectForKey(std::string_view key) { return impl_->state().value(key); }

void UserDefaults::setObject_forKey(const Object& value, std::string_view key) {
  requirePropertyListText(key);
  impl_->state().remember(value.isNil() ? value : storableValue(value, key), key);
}

void UserDefaults::removeObjectForKey(std::string_view key) { impl_->state().remember(nullptr, key); }

void UserDefaults::forgetChange(std::string_view key) { impl_->state().forget(key); }

bool UserDefaults::synchronize() { return impl_->state().synchronize(); }

Object UserDefaults::exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed) {
  requirePropertyListText(key);
  return impl_->state().exchange(key, decide, failed);
}

std::optional<PreferencesError> UserDefaults::lastError() const { return impl_->state().lastError(); }

}  // namespace platform
