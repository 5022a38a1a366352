#include "watcher/CDEvent.h"

#include <fmt/format.h>

#include <utility>

#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

std::optional<platform::Date> decodeDate(const platform::Object& value) {
  if (value.isNil()) return std::nullopt;
  return value.dateValue();
}

std::optional<platform::URL> decodeURL(const platform::Object& value) {
  if (value.isNil()) return std::nullopt;
  return platform::URL::URLWithString(value.stringValue());
}

// What "%@" prints for a value that may be nothing.
template <class T>
std::string describe(const std::optional<T>& value) {
  return value ? value->description() : "(null)";
}

}  // namespace

std::shared_ptr<const CDEvent> CDEvent::eventWithIdentifier_date_URL_flags(platform::FSEventStreamEventId identifier,
                                                                           std::optional<platform::Date> date,
                                                                           std::optional<platform::URL> URL,
                                                                           platform::FSEventStreamEventFlags flags) {
  return std::make_shared<const CDEvent>(identifier, date, std::move(URL), flags);
}

CDEvent::CDEvent(platform::FSEventStreamEventId identifier, std::optional<platform::Date> date, std::optional<platform::URL> URL,
                 platform::FSEventStreamEventFlags flags)
    : flags_(flags), identifier_(identifier), date_(date), URL_(std::move(URL)) {}

CDEvent::CDEvent(const platform::Object& coder)
    : CDEvent(coder.objectForKey("identifier").unsignedLongLongValue(), decodeDate(coder.objectForKey("date")),
              decodeURL(coder.objectForKey("URL")),
              static_cast<platform::FSEventStreamEventFlags>(coder.objectForKey("flags").unsignedLongLongValue())) {}

platform::Object CDEvent::encodeWithCoder() const {
  platform::Dictionary archive;
  archive["identifier"] = platform::Object::numberWithUnsignedLongLong(identifier_);
  archive["flags"] = platform::Object::numberWithUnsignedLongLong(flags_);
  if (date_) archive["date"] = *date_;
  if (URL_) archive["URL"] = URL_->absoluteString();
  return archive;
}

std::string CDEvent::description() const {
  return fmt::format("<CDEvent: {} {{ identifier = {}, URL = {}, flags = {}, date = {} }}>", fmt::ptr(this),
                     static_cast<std::int64_t>(identifier_), describe(URL_), flags_, describe(date_));
}

}  // namespace kestrine
