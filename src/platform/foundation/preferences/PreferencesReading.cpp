// What a preferences file holds: with the lock or without, and nothing is changed by it.
#include <sys/stat.h>

#include <cerrno>
#include <thread>
#include <utility>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/PreferencesFile.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/preferences/PreferencesLimits.h"

namespace platform {

namespace {

using Kind = PreferencesError::Kind;

/// Between two looks at a file that somebody may be writing.
constexpr std::chrono::milliseconds kLookPause{10};
/// A file that changes while it is read is read anew so often at once; then what was read counts, and is not believed for long.
constexpr int kReadsAtOnce = 3;

void requireRegular(mode_t mode) {
  if (mode == 0) throwError(EIO, "looking at it");
  if (!S_ISREG(mode)) throwError(S_ISDIR(mode) ? EISDIR : ENOTSUP, "it is no regular file");
}

/// What is known of the same bytes under the same stamps, which are as durable as they were.
bool takeKnown(const PreferencesSnapshot& known, PreferencesContents& now) {
  if (!known || known->hash != now.hash || !known->version.hasStampsOf(now.version)) return false;
  now.values = known->values;
  now.durable = known->durable.load();
  return true;
}

}  // namespace

PreferencesFile::Loaded PreferencesFile::load(const PreferencesSnapshot& known) const {
  for (int reads = 1;; ++reads) {
    FileVersion version(openPreferencesForReading(path_));
    auto contents = std::make_shared<PreferencesContents>();
    if (!version.exists()) {
      contents->version = std::move(version);
      return {std::move(contents), std::nullopt, {}};
    }
    requireRegular(version.mode());
    const auto bytes = readAll(version.descriptor(), kPropertyListMaximumSize);
    if (!bytes) throwError(bytes.error(), "reading");
    if (version.compareOpen() == FileVersion::Answer::Different && reads < kReadsAtOnce) continue;
    contents->hash = hashOfPreferences(*bytes);
    contents->version = std::move(version);
    if (takeKnown(known, *contents)) return {std::move(contents), std::nullopt, {}};
    try {
      contents->values = readPropertyList(*bytes);
      if (contents->values.isDictionary()) return {std::move(contents), std::nullopt, {}};
      return {nullptr, PreferencesError{Kind::Damaged, "it holds no dictionary"}, std::move(contents->version)};
    } catch (const PropertyListError& error) {
      const Kind kind = error.kind() == PropertyListError::Kind::TooLarge ? Kind::TooLarge : Kind::Damaged;
      return {nullptr, PreferencesError{kind, error.what()}, std::move(contents->version)};
    }
  }
}

PreferencesFile::Reading PreferencesFile::read(const PreferencesSnapshot& known) const {
  try {
    Loaded loaded = load(known);
    return {std::move(loaded.contents), std::move(loaded.damage), std::move(loaded.damaged)};
  } catch (const std::system_error& error) {
    const int number = error.code().value();
    return {nullptr, PreferencesError{number == ENOTDIR ? Kind::NoSuchDomain : Kind::Refused, errnoText(number)}, {}};
  } catch (const PreferencesFailure& failure) {
    return {nullptr, failure.error(), {}};
  }
}

PreferencesFile::Reading PreferencesFile::readPatiently() const {
  const PreferencesLimits limits = preferencesLimits();
  const auto end = Clock::now() + limits.readAgain;
  while (true) {
    Reading reading = read();
    const bool mayBeInTheMaking = reading.damaged.exists() && reading.damaged.age() < limits.settled;
    if (!mayBeInTheMaking || Clock::now() >= end) return reading;
    std::this_thread::sleep_for(kLookPause);
  }
}

PreferencesFile::Loaded PreferencesFile::loadSettled(const PreferencesSnapshot& known, Clock::time_point end) const {
  const auto settled = preferencesLimits().settled;
  FileVersion former;
  auto since = Clock::now();
  while (true) {
    Loaded loaded = load(known);
    if (!loaded.damage || loaded.damaged.age() >= settled) return loaded;
    const auto now = Clock::now();
    // By our own eyes too: the file's stamp may be in a time of its own.
    if (!loaded.damaged.hasStampsOf(former)) since = now;
    if (now - since >= settled) return loaded;
    if (now >= end) throw PreferencesFailure(loaded.damage->kind, loaded.damage->reason + ", and it is being changed");
    former = std::move(loaded.damaged);
    std::this_thread::sleep_for(kLookPause);
  }
}

}  // namespace platform
