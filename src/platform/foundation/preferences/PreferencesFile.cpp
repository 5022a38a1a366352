#include "platform/foundation/preferences/PreferencesFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/PreferencesAside.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/PreferencesPlace.h"
#include "platform/foundation/text/ASCII.h"

namespace platform {

namespace {

using Kind = PreferencesError::Kind;

constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr std::string_view kAsideSuffix = ".aside.tmp";

bool isDigits(std::string_view text) { return !text.empty() && std::ranges::all_of(text, isASCIIDigit); }

/// "<name>.<process>.tmp" or "<name>.<process>.aside.tmp"
bool isLeftover(std::string_view candidate, std::string_view name) {
  if (!candidate.starts_with(name) || !candidate.substr(name.size()).starts_with('.')) return false;
  candidate.remove_prefix(name.size() + 1);
  for (const std::string_view suffix : {kAsideSuffix, kTemporarySuffix}) {
    if (candidate.ends_with(suffix)) return isDigits(candidate.substr(0, candidate.size() - suffix.size()));
  }
  return false;
}

/// The file is not the one any more that the decision was about.
struct ChangedMeanwhile {};

void requireOurs(const PreferencesLock& lock) {
  if (!lock.isOurs()) throw PreferencesFailure(Kind::Locked, "this process was made while its parent was writing them");
}

}  // namespace

PreferencesDecision PreferencesDecision::put(Object values) {
  std::string bytes = values.isNil() ? std::string() : writePropertyList(values);
  return {Kind::Put, std::move(values), std::move(bytes)};
}

PreferencesFile::PreferencesFile(std::string folder, std::string_view domain)
    : folder_(std::move(folder)), name_(preferencesFileName(domain)), path_(folder_ + "/" + name_) {}

PreferencesFile::Outcome PreferencesFile::update(const Change& change, const PreferencesSnapshot& known, Clock::time_point end) const {
  try {
    const PreferencesFolder folder(folder_, true);
    const PreferencesLock lock(folder, name_ + ".lock", path_, end);
    return updateLocked(folder, lock, change, known, end);
  } catch (const PreferencesFailure& failure) {
    return {nullptr, failure.error()};
  } catch (const std::system_error& error) {
    return {nullptr, PreferencesError{Kind::Refused, error.what()}};
  } catch (const PropertyListError& error) {
    return {nullptr, PreferencesError{Kind::TooLarge, error.what()}};
  }
}

PreferencesFile::Outcome PreferencesFile::updateLocked(const PreferencesFolder& folder, const PreferencesLock& lock, const Change& change,
                                                       const PreferencesSnapshot& known, Clock::time_point end) const {
  constexpr int kAttempts = 5;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    Loaded found;
    if (known && known->version.compare(path_) == FileVersion::Answer::Same) {
      found.contents = known;
    } else {
      found = loadSettled(known, end);
    }
    // The last good values stay in force.
    const PreferencesSnapshot before = found.damage ? known : found.contents;
    PreferencesDecision decision = change(before ? before->values : Object());
    requireOurs(lock);
    if (decision.kind == PreferencesDecision::Kind::Leave) return {found.contents, found.damage};
    if (decision.kind == PreferencesDecision::Kind::Keep && found.damage) {
      if (!before || before->values.isNil()) return {nullptr, found.damage};
      // It is kept nowhere but in memory.
      decision = PreferencesDecision::put(before->values);
    }
    try {
      return apply(PreferencesPlace(folder, folder_, name_), lock, std::move(decision), found);
    } catch (const ChangedMeanwhile&) {
    }
  }
  throw PreferencesFailure(Kind::Refused, "somebody changes the file without the lock, again and again");
}

PreferencesFile::Outcome PreferencesFile::apply(const PreferencesPlace& place, const PreferencesLock& lock, PreferencesDecision decision,
                                                const Loaded& found) const {
  PreferencesSnapshot contents = found.contents;
  if (decision.kind == PreferencesDecision::Kind::Put) {
    auto after = std::make_shared<PreferencesContents>();
    if (decision.values.isNil()) {
      if (found.damage)
        static_cast<void>(keepAside(place, found.damaged, place.name() + "." + std::to_string(getpid()) + std::string(kAsideSuffix)));
      requireOurs(lock);
      place.folder().remove(place.name());
      after->version = FileVersion(FileHandle());
    } else {
      after->version = replace(place, lock, decision.bytes, found);
      after->hash = hashOfPreferences(decision.bytes);
    }
    after->values = std::move(decision.values);
    contents = std::move(after);
  } else if (contents->durable) {
    return {std::move(contents), std::nullopt};
  } else if (contents->version.exists()) {
    flushOrThrow(contents->version.descriptor(), "flushing the file");
  }
  try {
    place.folder().flush();
  } catch (const PreferencesFailure& failure) {
    // Every reader sees it already.
    return {std::move(contents), failure.error()};
  }
  contents->durable = true;
  return {std::move(contents), std::nullopt};
}

FileVersion PreferencesFile::replace(const PreferencesPlace& place, const PreferencesLock& lock, const std::string& bytes,
                                     const Loaded& found) const {
  const PreferencesFolder& folder = place.folder();
  removeLeftovers(place);
  const std::string prefix = place.name() + "." + std::to_string(getpid());
  const std::string temporary = prefix + std::string(kTemporarySuffix);
  const std::string temporaryAside = prefix + std::string(kAsideSuffix);
  const FileVersion& former = found.damage ? found.damaged : found.contents->version;
  FileHandle file =
      folder.write(temporary, bytes, former.exists() ? PreferencesAttributes(former.descriptor()) : PreferencesAttributes(folder.status()));
  try {
    std::string aside;
    if (found.damage) aside = keepAside(place, found.damaged, temporaryAside);
    requireOurs(lock);
    // Flushing takes a while, and not everybody asks for the lock.
    if (former.compare(path_) == FileVersion::Answer::Different) throw ChangedMeanwhile();
    folder.rename(temporary, place.name());
    if (found.damage) {
      NSLog("The preferences " + path_ + " are no property list (" + found.damage->reason + "); they are kept as " + aside);
      // Who had it open to write may have gone on until now.
      if (found.damaged.hasOtherBytes())
        NSLog("What was written into them last is kept as " + keepAside(place, found.damaged, temporaryAside));
    }
  } catch (...) {
    if (lock.isOurs()) folder.removeLeftover(temporary);
    throw;
  }
  return file.isOpen() ? FileVersion(std::move(file)) : FileVersion();
}

std::optional<PreferencesError> PreferencesFile::tryToWrite(Clock::time_point end) const {
  // A flag beside what is there already.
  constexpr std::size_t kRoom = 1024;
  try {
    const PreferencesFolder folder(folder_, true);
    const PreferencesLock lock(folder, name_ + ".lock", path_, end);
    const PreferencesPlace place(folder, folder_, name_);
    struct stat status {};
    const bool exists = fstatat(place.folder().descriptor(), place.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISREG(status.st_mode)) return PreferencesError{Kind::Refused, "it is no regular file"};
    const std::string temporary = place.name() + "." + std::to_string(getpid()) + std::string(kTemporarySuffix);
    const std::string bytes(kRoom + (exists ? static_cast<std::size_t>(status.st_size) : 0), ' ');
    static_cast<void>(place.folder().write(temporary, bytes, PreferencesAttributes(place.folder().status())));
    place.folder().removeLeftover(temporary);
    return std::nullopt;
  } catch (const PreferencesFailure& failure) {
    return failure.error();
  } catch (const std::system_error& error) {
    return PreferencesError{Kind::Refused, error.what()};
  }
}

std::optional<PreferencesError> PreferencesFile::flush(const PreferencesContents& contents) const {
  try {
    const PreferencesFolder folder(folder_, false);
    if (contents.version.exists()) flushOrThrow(contents.version.descriptor(), "flushing the file");
    PreferencesPlace(folder, folder_, name_).folder().flush();
    contents.durable = true;
    return std::nullopt;
  } catch (const PreferencesFailure& failure) {
    return failure.error();
  } catch (const std::system_error& error) {
    // Without a folder there is nothing that could come back.
    if (error.code() == std::errc::no_such_file_or_directory && !contents.version.exists()) return std::nullopt;
    return PreferencesError{Kind::NotFlushed, error.what()};
  }
}

// Whoever holds the lock is the only writer, so any temporary file of the domain was left by one that was killed.
void PreferencesFile::removeLeftovers(const PreferencesPlace& place) const {
  if (isCleaned_.exchange(true)) return;
  for (const auto& name : place.folder().names()) {
    if (isLeftover(name, place.name())) place.folder().removeLeftover(name);
  }
}

}  // namespace platform
