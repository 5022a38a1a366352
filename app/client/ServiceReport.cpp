#include "app/client/ServiceReport.h"

#include "contract/FlagEntry.h"
#include "contract/ServiceName.h"
#include "contract/WatchEntry.h"
#include "platform/xpc/service/ServiceStatusQuery.h"

namespace kestrine {

namespace {

using platform::Object;

// What another process sent may hold any kind of value: what is not of the kind expected is left out instead of believed.

std::string textFor(const Object& dictionary, std::string_view key) {
  const Object value = dictionary.objectForKey(key);
  return value.isString() ? value.stringValue() : std::string();
}

std::int64_t numberFor(const Object& dictionary, std::string_view key) {
  const Object value = dictionary.objectForKey(key);
  return value.isNumber() ? value.longLongValue() : 0;
}

platform::Array dictionariesIn(const Object& report, std::string_view section) {
  platform::Array found;
  const Object parts = report.objectForKey(section);
  if (!parts.isArray()) return found;
  for (const Object& part : parts.arrayValue()) {
    if (part.isDictionary()) found.push_back(part);
  }
  return found;
}

}  // namespace

std::optional<ServiceReport> askService(std::chrono::milliseconds limit) {
  const std::optional<Object> answer = platform::xpc::queryServiceStatus(kServiceName, limit);
  if (!answer || !answer->isDictionary()) return std::nullopt;
  ServiceReport report;
  report.all = *answer;
  for (const Object& process : dictionariesIn(*answer, "process")) {
    report.process = static_cast<pid_t>(numberFor(process, "pid"));
    const Object startedAt = process.objectForKey("startedAt");
    if (startedAt.kind() == Object::Kind::Date) report.startedAt = startedAt.dateValue();
  }
  for (const Object& watch : dictionariesIn(*answer, kWatchesSection)) {
    report.watches.push_back({numberFor(watch, kWatchNumberKey), textFor(watch, kWatchFolderKey), textFor(watch, kWatchStateKey),
                              textFor(watch, kWatchReasonKey)});
  }
  for (const Object& owed : dictionariesIn(*answer, kOwedFlagSection)) {
    const Object since = owed.objectForKey(kOwedFlagSinceKey);
    if (since.kind() == Object::Kind::Date) report.owedFlag = {since.dateValue(), textFor(owed, kOwedFlagReasonKey)};
  }
  report.streams = dictionariesIn(*answer, "streams");
  return report;
}

}  // namespace kestrine
