#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/base/Result.h"
#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/value/Object.h"

// A preferences domain as it stands on disk: where its file is, and reading it with the reason when that cannot be done. `folder` is
// preferencesFolder() (PreferencesFolder.h) when it is empty. Functions of any thread.
namespace platform {

/// Whether a domain may be called so: not empty, without '/' and NUL, neither "." nor "..".
bool isPreferencesDomainName(std::string_view name);
/// Throws Exception(NSInvalidArgumentException) when it may not.
void requirePreferencesDomainName(std::string_view name);

/// "<domain>.plist"
std::string preferencesFileName(std::string_view domain);
/// The path of the domain's file, whether or not there is one.
std::string preferencesFilePath(std::string_view domain, const std::string& folder = {});

/// The dictionary that the domain's file holds now. A damaged file that changed within the last second, which somebody may be writing, is
/// tried for 0.3 s. Throws Exception(NSInvalidArgumentException) for an illegal name.
Result<Object, PreferencesError> readPreferencesDomain(std::string_view domain, const std::string& folder = {});

/// Why the domain could not be written now; nothing when it could. Takes its lock, waiting for it for `limit`, and writes, flushes and
/// removes a file beside it that is as large; the domain stays as it is. Throws Exception(NSInvalidArgumentException) for an illegal name.
std::optional<PreferencesError> whyPreferencesDomainCannotBeWritten(std::string_view domain, std::chrono::milliseconds limit,
                                                                    const std::string& folder = {});

}  // namespace platform
