#include "bench/Floor.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "bench/Measure.h"

namespace kestrine::bench {

std::string subfolders(int folder, std::vector<char>& buffer) {
  buffer.resize(32768);
  std::string names;
  for (;;) {
    const long length = syscall(SYS_getdents64, folder, buffer.data(), buffer.size());
    if (length < 0) fail("getdents64");
    if (length == 0) return names;
    for (long offset = 0; offset < length;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + offset);
      offset += entry->d_reclen;
      if (entry->d_type != DT_DIR || std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      names.append(entry->d_name).push_back('\0');
    }
  }
}

}  // namespace kestrine::bench
