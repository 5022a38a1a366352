#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/base/Result.h"
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

/// Why a domain could not be read.
struct PreferencesError {
  enum class Kind {
    NoSuchDomain,  ///< it has no file
    Refused,       ///< the system does not let it be read, or it is no regular file
    Damaged,       ///< the file is no property list or holds no dictionary
  };
  Kind kind;
  /// "Permission denied"; what is wrong with the file's text.
  std::string reason;
};

/// The dictionary that the domain's file holds now. A damaged file is moved aside, which the log says. Throws
/// Exception(NSInvalidArgumentException) for an illegal name.
Result<Object, PreferencesError> readPreferencesDomain(std::string_view domain, const std::string& folder = {});

}  // namespace platform
