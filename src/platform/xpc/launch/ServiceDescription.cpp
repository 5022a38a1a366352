#include "platform/xpc/launch/ServiceDescription.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/base/TrustedPath.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/xpc/launch/XDGFolders.h"

namespace platform::xpc {

namespace {

/// Far more than a description needs.
constexpr std::size_t kMaximumBytes = std::size_t{16} << 10U;

/// The text under `key` of a property list's dictionary; empty when there is none.
std::string textUnderKey(const std::string& bytes, std::string_view key) {
  try {
    const Object list = readPropertyList(bytes);
    const Object text = list.isDictionary() ? list.objectForKey(key) : Object();
    return text.isString() ? text.stringValue() : std::string();
  } catch (const PropertyListError&) {
    return {};
  }
}

Result<std::string, int> readSmallFile(int descriptor) {
  auto bytes = readAll(descriptor, kMaximumBytes);
  if (bytes && bytes->size() > kMaximumBytes) return EFBIG;
  return bytes;
}

Result<ServiceDescription, LaunchError> readDescription(int descriptor, const std::string& path) {
  const auto refuse = [&path](const std::string& why) {
    return LaunchError{"the service description " + path + " " + why + "; install the service again", LaunchError::Kind::BadInstallation};
  };
  const auto bytes = readSmallFile(descriptor);
  if (!bytes) return refuse("cannot be read: " + errnoText(bytes.error()));
  std::string program = textUnderKey(*bytes, "Program");
  if (program.empty()) return refuse("is no property list that names a Program");
  if (program.front() != '/' || program.find('\0') != std::string::npos) return refuse("does not name its Program by an absolute path");
  return ServiceDescription{path, std::move(program)};
}

}  // namespace

Result<ServiceDescription, LaunchError> findServiceDescription(const std::string& name) {
  std::string searched;
  for (const std::string& folder : xdgDataFolders()) {
    const std::string path = folder + "/xpc-services/" + name + ".plist";
    const auto file = openTrustedFile(path, O_RDONLY);
    if (file) return readDescription(file->fileDescriptor(), path);
    const PathRefusal& refusal = file.error();
    // Where somebody else could put a description, there is none as long as nobody has.
    const bool isNone = refusal.error == ENOENT || refusal.error == ENOTDIR || (refusal.isDistrust && access(path.c_str(), F_OK) != 0);
    if (!isNone) {
      return LaunchError{"the service description " + path + " cannot be read: " + refusal.reason, LaunchError::Kind::BadInstallation};
    }
    searched += (searched.empty() ? "" : ", ") + folder;
  }
  return LaunchError{"there is no service " + name + ": no xpc-services/" + name + ".plist in " + searched +
                         "; install the service, or name its share folder in XDG_DATA_DIRS",
                     LaunchError::Kind::NotInstalled};
}

}  // namespace platform::xpc
