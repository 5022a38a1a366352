#include "platform/xpc/launch/ServiceDescription.h"

#include <fcntl.h>

#include <cerrno>
#include <string_view>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/SystemError.h"
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
    const FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.isOpen()) return readDescription(file.fileDescriptor(), path);
    if (errno != ENOENT && errno != ENOTDIR) {
      return LaunchError{"the service description " + path + " cannot be read: " + errnoText(errno), LaunchError::Kind::BadInstallation};
    }
    searched += (searched.empty() ? "" : ", ") + folder;
  }
  return LaunchError{"there is no service " + name + ": no xpc-services/" + name + ".plist in " + searched +
                         "; install the service, or name its share folder in XDG_DATA_DIRS",
                     LaunchError::Kind::NotInstalled};
}

}  // namespace platform::xpc
