#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "platform/foundation/preferences/PreferencesLock.h"

namespace platform {

namespace {

/// The process that a line of proc_locks(5) is about when that is a flock of the file; 0 else.
/// "1: FLOCK  ADVISORY  WRITE 4711 08:01:131 0 EOF"; a line with "->" is about one that waits.
long holderIn(const std::string& line, const struct stat& file) {
  std::istringstream words(line);
  std::string number;
  std::string type;
  std::string mode;
  std::string access;
  std::string place;
  long process = 0;
  if (!(words >> number >> type >> mode >> access >> process >> place) || type != "FLOCK") return 0;
  unsigned major = 0;
  unsigned minor = 0;
  unsigned long inode = 0;
  if (std::sscanf(place.c_str(), "%x:%x:%lu", &major, &minor, &inode) != 3) return 0;
  return inode == file.st_ino && makedev(major, minor) == file.st_dev ? process : 0;
}

/// "editor, which is stopped", as proc_pid_stat(5) tells; the name is in parentheses and may hold any character.
std::string nameAndState(long process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto begin = text.find('(');
  const auto end = text.rfind(')');
  if (begin == std::string::npos || end == std::string::npos || end + 2 >= text.size()) return {};
  const char state = text[end + 2];
  return text.substr(begin + 1, end - begin - 1) + (state == 'T' || state == 't' ? ", which is stopped" : "");
}

}  // namespace

std::string holderOfLock(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return "another process";
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    const long process = holderIn(line, status);
    if (process <= 0) continue;
    const std::string name = nameAndState(process);
    return "process " + std::to_string(process) + (name.empty() ? "" : " (" + name + ")");
  }
  return "another process";
}

}  // namespace platform
