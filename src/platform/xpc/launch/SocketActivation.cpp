#include "platform/xpc/launch/SocketActivation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace platform::xpc {

namespace {

constexpr const char* kCountVariable = "LISTEN_FDS";
constexpr const char* kProcessVariable = "LISTEN_PID";
constexpr const char* kNamesVariable = "LISTEN_FDNAMES";
constexpr std::string_view kCommonPrefix = "LISTEN_";

constexpr std::string_view kProcessEntry = "LISTEN_PID=";
/// As many digits as a process number can have.
constexpr std::string_view kProcessRoom = "0000000000";

bool isListeningStream(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM && option(SO_ACCEPTCONN) == 1;
}

}  // namespace

Result<FileHandle, LaunchError> takeHandedOverSocket() {
  const char* count = std::getenv(kCountVariable);
  const char* process = std::getenv(kProcessVariable);
  const bool isOurs = count != nullptr && process != nullptr && std::to_string(getpid()) == process && std::atoi(count) >= 1;
  for (const char* variable : {kCountVariable, kProcessVariable, kNamesVariable}) unsetenv(variable);
  if (!isOurs) return FileHandle();
  fcntl(kHandedOverDescriptor, F_SETFD, FD_CLOEXEC);
  if (!isListeningStream(kHandedOverDescriptor)) return LaunchError{"the descriptor that was handed over is no listening stream socket"};
  return FileHandle(kHandedOverDescriptor);
}

bool isAboutHandOver(std::string_view entry) { return entry.starts_with(kCommonPrefix); }

void addHandOver(std::vector<std::string>& environment) {
  environment.push_back(std::string(kCountVariable) + "=1");
  environment.push_back(std::string(kProcessEntry) + std::string(kProcessRoom));
}

void putOwnProcess(char* lastEntry) noexcept {
  char* const digits = lastEntry + kProcessEntry.size();
  std::array<char, kProcessRoom.size()> reversed{};
  std::size_t count = 0;
  for (auto rest = static_cast<unsigned>(getpid()); rest > 0; rest /= 10) reversed[count++] = static_cast<char>('0' + rest % 10);
  for (std::size_t i = 0; i < count; ++i) digits[i] = reversed[count - 1 - i];
  digits[count] = '\0';
}

}  // namespace platform::xpc
