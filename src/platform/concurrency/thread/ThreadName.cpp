#include "platform/concurrency/thread/ThreadName.h"

#include <pthread.h>

namespace platform {

void nameThisThread(const std::string& name) {
  static thread_local std::string former;
  if (former == name) return;
  former = name;
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

}  // namespace platform
