// A client of the channel, to be run as another user: connects to the socket of the given path, sends one message, and prints the numbers
// that the other end should see of it. Ends when the other end closes.

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "tests/xpc/RawSocket.h"

int main(int count, char** arguments) {
  using namespace kestrine::test;
  if (count != 2) return 2;
  const platform::FileHandle socket = connectTo(arguments[1]);
  std::string session;
  std::ifstream("/proc/self/sessionid") >> session;
  std::printf("%d %d %d %s\n", static_cast<int>(geteuid()), static_cast<int>(getegid()), static_cast<int>(getpid()), session.c_str());
  std::fflush(stdout);
  if (!sendBytes(socket, commandFrame("hello"))) return 1;
  return isClosed(socket) ? 0 : 1;
}
