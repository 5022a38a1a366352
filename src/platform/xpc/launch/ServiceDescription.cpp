#include "platform/xpc/launch/ServiceDescription.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/xpc/launch/Environment.h"

namespace platform::xpc {

namespace {

/// Far more than a description needs.
constexpr std::size_t kMaximumBytes = std::size_t{16} << 10U;

std::string errorText(int number) { return std::generic_category().message(number); }

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

std::variant<std::string, int> readSmallFile(int descriptor) {
  std::string bytes(kMaximumBytes + 1, '\0');
  std::size_t size = 0;
  while (size < bytes.size()) {
    const ssize_t got = read(descriptor, bytes.data() + size, bytes.size() - size);
    if (got < 0) return errno;
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  if (size > kMaximumBytes) return EFBIG;
  bytes.resize(size);
  return bytes;
}

std::variant<ServiceDescription, LaunchError> readDescription(int descriptor, const std::string& path) {
  const auto refuse = [&path](const std::string& why) {
    return LaunchError{"the service description " + path + " " + why + "; install the service again"};
  };
  const auto bytes = readSmallFile(descriptor);
  if (const int* error = std::get_if<int>(&bytes)) return refuse("cannot be read: " + errorText(*error));
  std::string program = textUnderKey(std::get<std::string>(bytes), "Program");
  if (program.empty()) return refuse("is no property list that names a Program");
  if (program.front() != '/' || program.find('\0') != std::string::npos) return refuse("does not name its Program by an absolute path");
  return ServiceDescription{path, std::move(program)};
}

}  // namespace

std::variant<ServiceDescription, LaunchError> findServiceDescription(const std::string& name) {
  std::string searched;
  for (const std::string& folder : dataFolders()) {
    const std::string path = folder + "/xpc-services/" + name + ".plist";
    const FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.isOpen()) return readDescription(file.fileDescriptor(), path);
    if (errno != ENOENT && errno != ENOTDIR) {
      return LaunchError{"the service description " + path + " cannot be read: " + errorText(errno)};
    }
    searched += (searched.empty() ? "" : ", ") + folder;
  }
  return LaunchError{"there is no service " + name + ": no xpc-services/" + name + ".plist in " + searched +
                     "; install the service, or name its share folder in XDG_DATA_DIRS"};
}

}  // namespace platform::xpc
