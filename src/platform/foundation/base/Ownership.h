#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

// Whose an item of the file system is, and who else may change it. Internal to TrustedPath. Threads: any.
namespace platform {

/// Whether the user is root, or stands for root because this user namespace has no number for it (user_namespaces(7)): then every unknown
/// user looks alike, and the system's folders could not be told from anybody's.
bool isOfTheSystem(uid_t user);

/// "user 1000", "root".
std::string userText(uid_t user);

/// Who besides its owner may write to what is open, in words; nothing when nobody may. A group that consists of the owner alone, as many
/// systems give each user, is nobody else.
std::optional<std::string> otherWriters(int descriptor, const struct stat& status);

}  // namespace platform
