#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/url/URL.h"
#include "platform/foundation/value/Object.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "watcher/CDEventFlags.h"

namespace kestrine {

/// The record of one file-system event as an event stream delivers it.
///
/// Immutable, and therefore shared: it lives in a `std::shared_ptr<const CDEvent>`, and a copy is the same object.
/// Threads: any thread may read it at any time.
class CDEvent : public std::enable_shared_from_this<CDEvent> {
 public:
  static std::shared_ptr<const CDEvent> eventWithIdentifier_date_URL_flags(platform::FSEventStreamEventId identifier,
                                                                           std::optional<platform::Date> date,
                                                                           std::optional<platform::URL> URL,
                                                                           platform::FSEventStreamEventFlags flags);

  CDEvent(platform::FSEventStreamEventId identifier, std::optional<platform::Date> date, std::optional<platform::URL> URL,
          platform::FSEventStreamEventFlags flags);
  /// Reads what `encodeWithCoder` wrote. A missing key reads as 0 or nothing; a value of another kind throws
  /// platform::Exception(NSInvalidArgumentException).
  explicit CDEvent(const platform::Object& coder);
  CDEvent(const CDEvent&) = delete;
  CDEvent& operator=(const CDEvent&) = delete;

  /// The platform's identifier of the event; grows with time.
  [[nodiscard]] platform::FSEventStreamEventId identifier() const noexcept { return identifier_; }
  /// When the event was processed, which is later than the change. Nothing only in a record read from an archive that holds none.
  [[nodiscard]] const std::optional<platform::Date>& date() const noexcept { return date_; }
  /// The file or folder that the event is about, as a file URL. Nothing only in a record read from an archive that holds none.
  [[nodiscard]] const std::optional<platform::URL>& URL() const noexcept { return URL_; }
  /// The platform's flags, bits without a predicate below included.
  [[nodiscard]] platform::FSEventStreamEventFlags flags() const noexcept { return flags_; }

  /// A change in the folder, without any detail: no flag at all is set.
  [[nodiscard]] bool isGenericChange() const noexcept { return flags_ == platform::kFSEventStreamEventFlagNone; }

  // Events were lost or folded: what is below must be looked at again, and who lost them.
  [[nodiscard]] bool mustRescanSubDirectories() const noexcept { return isSet(cdEventFlag("mustRescanSubDirectories")); }
  [[nodiscard]] bool isUserDropped() const noexcept { return isSet(cdEventFlag("isUserDropped")); }
  [[nodiscard]] bool isKernelDropped() const noexcept { return isSet(cdEventFlag("isKernelDropped")); }
  // About the stream itself.
  [[nodiscard]] bool isEventIdentifiersWrapped() const noexcept { return isSet(cdEventFlag("isEventIdentifiersWrapped")); }
  [[nodiscard]] bool isHistoryDone() const noexcept { return isSet(cdEventFlag("isHistoryDone")); }
  [[nodiscard]] bool isRootChanged() const noexcept { return isSet(cdEventFlag("isRootChanged")); }
  [[nodiscard]] bool didVolumeMount() const noexcept { return isSet(cdEventFlag("didVolumeMount")); }
  [[nodiscard]] bool didVolumeUnmount() const noexcept { return isSet(cdEventFlag("didVolumeUnmount")); }
  // What happened to the item.
  [[nodiscard]] bool isCreated() const noexcept { return isSet(cdEventFlag("isCreated")); }
  [[nodiscard]] bool isRemoved() const noexcept { return isSet(cdEventFlag("isRemoved")); }
  [[nodiscard]] bool isInodeMetadataModified() const noexcept { return isSet(cdEventFlag("isInodeMetadataModified")); }
  [[nodiscard]] bool isRenamed() const noexcept { return isSet(cdEventFlag("isRenamed")); }
  [[nodiscard]] bool isModified() const noexcept { return isSet(cdEventFlag("isModified")); }
  [[nodiscard]] bool isFinderInfoModified() const noexcept { return isSet(cdEventFlag("isFinderInfoModified")); }
  [[nodiscard]] bool didChangeOwner() const noexcept { return isSet(cdEventFlag("didChangeOwner")); }
  [[nodiscard]] bool isXattrModified() const noexcept { return isSet(cdEventFlag("isXattrModified")); }
  // What the item is.
  [[nodiscard]] bool isFile() const noexcept { return isSet(cdEventFlag("isFile")); }
  [[nodiscard]] bool isDir() const noexcept { return isSet(cdEventFlag("isDir")); }
  [[nodiscard]] bool isSymlink() const noexcept { return isSet(cdEventFlag("isSymlink")); }

  /// The keyed archive of the record: a dictionary of "identifier" and "flags" (unsigned 64-bit numbers), "date" (a date) and "URL" (its
  /// text).
  [[nodiscard]] platform::Object encodeWithCoder() const;
  /// The same object.
  [[nodiscard]] std::shared_ptr<const CDEvent> copyWithZone() const { return shared_from_this(); }
  /// "<CDEvent: 0x… { identifier = …, URL = …, flags = …, date = … }>"; the identifier is printed as a signed number.
  [[nodiscard]] std::string description() const;

 private:
  [[nodiscard]] bool isSet(platform::FSEventStreamEventFlags bit) const noexcept { return (flags_ & bit) != 0; }

  platform::FSEventStreamEventFlags flags_;
  platform::FSEventStreamEventId identifier_;
  std::optional<platform::Date> date_;
  std::optional<platform::URL> URL_;
};

}  // namespace kestrine
