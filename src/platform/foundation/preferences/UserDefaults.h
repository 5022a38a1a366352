#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/value/Object.h"

namespace platform {

/// Preferences: one property-list file per domain, "<preferencesFolder()>/<domain>.plist".
///
/// Files are written as XML (as binary where XML cannot hold what others put in) and read as XML or binary, bounded in size and nesting
/// before they are parsed. A writer takes the domain's lock, reads what is on disk, merges its own changes, writes a temporary file,
/// flushes it, renames it over the old one and flushes the folder, so a reader never sees half a file and a killed writer leaves the old
/// one. The new file has the old one's mode, and as far as the writer may give them its owner and extended attributes; a symbolic link
/// stays one.
///
/// A reader changes nothing on disk and waits for no lock and no flush. A file that cannot be read is read again when it has changed or a
/// moment has gone by; until then the values last read stay in force, and `lastError` tells why. A writer that finds a damaged file which
/// nobody has touched for a second keeps a copy of it aside, says so in the log and puts those values, with its changes, in its place.
///
/// Threads: any thread may call anything. Processes: any number may read and write the same domain. A child made by fork(2) goes on with a
/// store of its own: what its parent had not synchronised is not in it.
class UserDefaults {
 public:
  /// The process's own preferences: its application domain. Never destroyed.
  static UserDefaults& standardUserDefaults();
  /// The preferences of the domain `domainName` in `folder` (preferencesFolder() when empty). Throws Exception(NSInvalidArgumentException)
  /// for an illegal name (empty, with '/' or NUL, "." or "..").
  explicit UserDefaults(std::string domainName, std::string folder = {});
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  ~UserDefaults();

  /// The whole of another domain as it stands on disk now; nil when the domain does not exist or its name is not a legal one.
  Object persistentDomainForName(std::string_view name);
  /// Replaces the domain on disk. Throws Exception(NSInvalidArgumentException) for an illegal name or a value that is no dictionary or that
  /// a property list cannot hold (PropertyList.h says which); returns false, with the reason in the log, when the file cannot be written.
  bool setPersistentDomain_forName(const Object& domain, std::string_view name);
  /// Removes the domain's file. True also when there was none; then, too, only when that is durable. Throws for an illegal name.
  bool removePersistentDomainForName(std::string_view name);
  /// Names of the domains in the folder, sorted. None, with the reason in the log, when there is a folder that cannot be listed.
  [[nodiscard]] std::vector<std::string> persistentDomainNames() const;

  /// This domain's value for `key`: a change not yet synchronised, else what is on disk (which costs one stat to verify), else, when that
  /// cannot be read, what was last read. Where nothing was, a damaged file that is younger than a second is tried for 0.3 s.
  Object objectForKey(std::string_view key);
  /// Remembers the value in the form in which it would be read back: integers as LongLong (UnsignedLongLong above 2^63-1), reals as Double,
  /// dates in whole seconds. `synchronize` writes it. Nil removes the key. Throws as setPersistentDomain_forName does for a value or key
  /// that cannot be stored.
  void setObject_forKey(const Object& value, std::string_view key);
  void removeObjectForKey(std::string_view key);
  /// Forgets a remembered change that `synchronize` has not acknowledged yet. What stands on disk stays.
  void forgetChange(std::string_view key);
  /// Writes the remembered changes. Costs one stat when the file is the one last read and already holds them; a change that another process
  /// made since, to the same key too, is noticed and overwritten by ours. Waits 10 s at most for the domain's lock, and 1 s when the last
  /// attempt was in vain. True when the disk now holds our changes, file and folder flushed, or there are none; false, with the reason in
  /// `lastError` and in the log (once per reason), when not: the changes stay remembered for the next call, but for values that would take
  /// the domain beyond the bounds of a property list. These are refused alone and forgotten.
  bool synchronize();

  /// Reads `key` from disk and, when `decide` returns a value other than nil for it, stores that, all under the domain's lock: no other
  /// writer comes between. A change to `key` not yet synchronised takes no part, and is dropped when a value is stored. Returns what was
  /// read. `failed`, when not null, tells that the lock could not be had (`decide` is not called then) or the new value not be written.
  /// `decide` is called once at most and must not use preferences of this domain.
  Object exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed = nullptr);

  /// Why the last attempt to write through this object, else the last to read, failed; none when both went well. A domain that does not
  /// exist is no error.
  [[nodiscard]] std::optional<PreferencesError> lastError() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
