#include <fmt/format.h>

#include "Services/RestInterface.h"
#include "contract/SharedPreferences.h"
#include "platform/foundation/log/Log.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine {

namespace {

Text preference(const platform::Object& preferences, std::string_view key) {
  const platform::Object value = preferences.objectForKey(key);
  if (value.isNil()) return std::nullopt;
  return value.isString() ? value.stringValue() : value.description();
}

/// The answer as "%@" prints it: the record by its class and address, the error, or nothing.
std::string description(const RestAnswer<LogErrorResponseData>& answer) {
  if (answer.result) return fmt::format("<LogErrorResponseData: {}>", fmt::ptr(&*answer.result));
  return answer.error ? answer.error->description() : platform::Object().description();
}

}  // namespace

void FileWatcherServiceXPC::logErrorMethod(const platform::Exception& /*exception*/) {
  LogErrorQuery query;
  query.errorClass = "FileWatcher";
  query.errorMethod = "Run Method";
  query.errorMessage = "Exception has occured";
  query.computerId = preference(iAppsPrefs_, kComputerIdKey);
  query.userId = preference(iAppsPrefs_, kUserIdKey);
  RestInterface::asyncLogError_withCompiletionHandler(query, [](const RestAnswer<LogErrorResponseData>& answer, RestTaskStatus /*status*/) {
    platform::NSLog(fmt::format("Error occured....{}", description(answer)));
  });
}

}  // namespace kestrine
