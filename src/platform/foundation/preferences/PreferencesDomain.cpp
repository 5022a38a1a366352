#include "platform/foundation/preferences/PreferencesDomain.h"

#include <cerrno>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/preferences/PreferencesFile.h"
#include "platform/foundation/preferences/PreferencesFolder.h"

namespace platform {

bool isPreferencesDomainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

void requirePreferencesDomainName(std::string_view name) {
  if (!isPreferencesDomainName(name))
    throw Exception(NSInvalidArgumentException, "\"" + std::string(name) + "\" is no name of a preferences domain");
}

std::string preferencesFileName(std::string_view domain) { return std::string(domain) + ".plist"; }

std::string preferencesFilePath(std::string_view domain, const std::string& folder) {
  return (folder.empty() ? preferencesFolder() : folder) + "/" + preferencesFileName(domain);
}

Result<Object, PreferencesError> readPreferencesDomain(std::string_view domain, const std::string& folder) {
  using Kind = PreferencesError::Kind;
  requirePreferencesDomainName(domain);
  const auto reading = PreferencesFile(folder.empty() ? preferencesFolder() : folder, domain).readPatiently();
  if (reading.error) return *reading.error;
  if (reading.contents->values.isNil()) return PreferencesError{Kind::NoSuchDomain, errnoText(ENOENT)};
  return reading.contents->values;
}

std::optional<PreferencesError> whyPreferencesDomainCannotBeWritten(std::string_view domain, std::chrono::milliseconds limit,
                                                                    const std::string& folder) {
  requirePreferencesDomainName(domain);
  return PreferencesFile(folder.empty() ? preferencesFolder() : folder, domain).tryToWrite(PreferencesFile::Clock::now() + limit);
}

}  // namespace platform
