#include "platform/foundation/preferences/PreferencesFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/preferences/PreferencesReasons.h"
#include "platform/foundation/text/ASCII.h"

namespace platform {

namespace {

constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr int kCorruptFilesKept = 100;

FileHandle openForReading(const std::string& path) {
  FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.isOpen()) {
    if (errno == ENOENT) return file;
    throwLastError("opening");
  }
  struct stat status {};
  if (fstat(file.fileDescriptor(), &status) != 0) throwLastError("looking at it");
  if (!S_ISREG(status.st_mode)) throwError(S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP, "it is no regular file");
  return file;
}

bool isDigits(std::string_view text) { return !text.empty() && std::ranges::all_of(text, isASCIIDigit); }

}  // namespace

FileVersion::FileVersion(FileHandle file) : known_(true), file_(std::move(file)) {
  if (file_.isOpen() && fstat(file_.fileDescriptor(), &status_) != 0) known_ = false;
}

bool FileVersion::isStillAt(const std::string& path) const {
  if (!known_) return false;
  struct stat now {};
  if (stat(path.c_str(), &now) != 0) return errno == ENOENT && !exists();
  return exists() && now.st_dev == status_.st_dev && now.st_ino == status_.st_ino && now.st_size == status_.st_size &&
         now.st_mtim.tv_sec == status_.st_mtim.tv_sec && now.st_mtim.tv_nsec == status_.st_mtim.tv_nsec;
}

PreferencesFile::PreferencesFile(std::string folder, std::string_view domain)
    : folder_(std::move(folder)), name_(preferencesFileName(domain)), path_(folder_ + "/" + name_) {}

PreferencesFile::Contents PreferencesFile::load(std::optional<Unusable>* unusable) const {
  FileHandle file = openForReading(path_);
  if (!file.isOpen()) return {Object(), FileVersion(FileHandle())};
  const auto bytes = readAll(file.fileDescriptor(), kPropertyListMaximumSize);
  if (!bytes) throwError(bytes.error(), "reading");
  try {
    auto values = readPropertyList(*bytes);
    if (values.isDictionary()) return {std::move(values), FileVersion(std::move(file))};
    *unusable = Unusable{"it holds no dictionary"};
  } catch (const PropertyListError& error) {
    *unusable = Unusable{error.what()};
  }
  return {Object(), FileVersion()};
}

PreferencesFile::Contents PreferencesFile::loadLocked(const PreferencesFolder& folder) const {
  std::optional<Unusable> unusable;
  auto contents = load(&unusable);
  if (!unusable) return contents;
  setAside(folder, unusable->why);
  return {Object(), FileVersion(FileHandle()), unusable->why};
}

Result<PreferencesFile::Contents, std::system_error> PreferencesFile::read() const {
  std::optional<Unusable> unusable;
  try {
    auto contents = load(&unusable);
    if (unusable) {
      // Looked at again under the lock: a writer may have replaced it by now.
      const PreferencesFolder folder(folder_, false);
      const PreferencesLock lock = folder.lock(name_ + ".lock");
      contents = loadLocked(folder);
    }
    PreferencesReasons::shared().succeeded(path_, PreferencesReasons::Operation::Read);
    return contents;
  } catch (const std::system_error& error) {
    if (!unusable) return error;
    // What is unusable and must stay where it is counts as empty all the same.
    failed(false, unusable->why + ", and it cannot be moved aside: " + error.what());
    Contents empty;
    empty.damage = unusable->why;
    return empty;
  }
}

std::optional<PreferencesFile::Contents> PreferencesFile::readOrSay() const {
  auto contents = read();
  if (contents) return std::move(*contents);
  failed(false, contents.error().what());
  return std::nullopt;
}

std::optional<PreferencesFile::Contents> PreferencesFile::update(const Change& change) const {
  try {
    const PreferencesFolder folder(folder_, true);
    const PreferencesLock lock = folder.lock(name_ + ".lock");
    auto contents = loadLocked(folder);
    if (auto values = change(contents.values)) {
      if (values->isNil()) {
        folder.remove(name_);
        contents.version = FileVersion(FileHandle());
      } else {
        contents.version = replace(folder, writePropertyList(*values));
      }
      contents.values = std::move(*values);
    }
    PreferencesReasons::shared().succeeded(path_, PreferencesReasons::Operation::Write);
    return contents;
  } catch (const std::system_error& error) {
    failed(true, error.what());
  } catch (const PropertyListError& error) {
    failed(true, error.what());
  }
  return std::nullopt;
}

FileVersion PreferencesFile::replace(const PreferencesFolder& folder, const std::string& bytes) const {
  removeLeftovers(folder);
  const std::string temporary = name_ + "." + std::to_string(getpid()) + std::string(kTemporarySuffix);
  FileHandle file = folder.write(temporary, bytes);
  try {
    folder.rename(temporary, name_);
  } catch (const std::system_error&) {
    folder.removeLeftover(temporary);
    throw;
  }
  try {
    folder.sync();
  } catch (const std::system_error& error) {
    // Every reader sees the new file already; only a power failure could still bring the old one back.
    failed(true, error.what());
  }
  return FileVersion(std::move(file));
}

// Whoever holds the lock is the only writer, so any temporary file of the domain was left by one that was killed.
void PreferencesFile::removeLeftovers(const PreferencesFolder& folder) const {
  const std::string prefix = name_ + ".";
  for (const auto& name : folder.names()) {
    if (name.size() <= prefix.size() + kTemporarySuffix.size() || !name.starts_with(prefix) || !name.ends_with(kTemporarySuffix)) continue;
    if (isDigits(std::string_view(name).substr(prefix.size(), name.size() - prefix.size() - kTemporarySuffix.size())))
      folder.removeLeftover(name);
  }
}

void PreferencesFile::setAside(const PreferencesFolder& folder, const std::string& why) const {
  const std::string base = name_ + ".corrupt";
  std::string aside = base;
  for (int number = 2; !folder.renameToFree(name_, aside); ++number) {
    if (number > kCorruptFilesKept) {
      folder.remove(aside);
    } else {
      aside = base + "." + std::to_string(number);
    }
  }
  NSLog("The preferences " + path_ + " are no property list (" + why + "); they are kept as " + aside + " and count as empty");
}

void PreferencesFile::failed(bool writing, const std::string& reason) const {
  PreferencesReasons::shared().failed(path_, writing ? PreferencesReasons::Operation::Write : PreferencesReasons::Operation::Read, reason);
}

}  // namespace platform
