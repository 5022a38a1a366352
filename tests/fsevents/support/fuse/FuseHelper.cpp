// A file system in user space that shows a folder, in a process of its own, driven by lines on its standard input:
//
//   FuseHelper FOLDER POINT
//
// It mounts the file system at POINT, in the mount namespace that it was started in, and says "ready" or "failed REASON". Each command is
// answered with one line. It ends when its input ends or when the one who started it does, and then the kernel answers ENOTCONN for it.
//
//   hang                      no question is read from now on
//   answer                    and they are again, those that waited too
//   fault OPERATION PATH ERRNO  see FuseFaults; PATH in hexadecimal
//   heal                      no faults any more
//   asked OPERATION PATH      how often it was asked

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include "tests/fsevents/support/Hex.h"
#include "tests/fsevents/support/fuse/FuseServer.h"

namespace {

using kestrine::test::fromHex;
using kestrine::test::FuseServer;
using platform::FileHandle;

void say(const std::string& line) { std::cout << line << '\n' << std::flush; }

int failed(const std::string& what) {
  say("failed " + what + ": " + std::strerror(errno));
  return 1;
}

class Helper {
 public:
  explicit Helper(FuseServer& server) : server_(server) {}

  void run() {
    for (std::string unread;;) {
      std::array<pollfd, 2> ready = {pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{hangs_ ? -1 : server_.device(), POLLIN, 0}};
      if (::poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) return;
      if (ready[1].revents != 0 && !server_.serveOne()) hangs_ = true;  // unmounted everywhere: there is nothing to answer
      if (ready[0].revents == 0) continue;
      std::array<char, 4096> bytes{};
      const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
      if (count <= 0) return;
      unread.append(bytes.data(), static_cast<std::size_t>(count));
      for (std::size_t end = 0; (end = unread.find('\n')) != std::string::npos; unread.erase(0, end + 1)) obey(unread.substr(0, end));
    }
  }

 private:
  void obey(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    std::string operation;
    std::string path;
    int error = 0;
    words >> command >> operation >> path >> error;
    std::string answer = "done";
    if (command == "hang" || command == "answer") {
      hangs_ = command == "hang";
    } else if (command == "fault") {
      server_.faults().set(operation, fromHex(path), error);
    } else if (command == "heal") {
      server_.faults().clear();
    } else if (command == "asked") {
      answer = std::to_string(server_.faults().asked(operation, fromHex(path)));
    }
    say(answer);
  }

  FuseServer& server_;
  bool hangs_ = false;
};

}  // namespace

int main(int count, char** values) {
  if (count != 3) return 64;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::umask(0);
  FileHandle device(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!device.isOpen()) return failed("open /dev/fuse");
  FileHandle folder(::open(values[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen()) return failed(std::string("open ") + values[1]);
  const std::string options = "fd=" + std::to_string(device.fileDescriptor()) + ",rootmode=40000,user_id=" + std::to_string(::geteuid()) +
                              ",group_id=" + std::to_string(::getegid()) + ",default_permissions,allow_other";
  if (::mount("kestrine-test", values[2], "fuse.kestrine-test", MS_NOSUID | MS_NODEV, options.c_str()) != 0) return failed("mount");
  // A program may stay in a folder of what it serves, but not wait for itself.
  if (::chdir("/") != 0) return failed("chdir /");
  FuseServer server(std::move(device), std::move(folder));
  say("ready");
  Helper(server).run();
  return 0;
}
