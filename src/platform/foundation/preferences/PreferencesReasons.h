#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>

namespace platform {

/// Says each reason why a preferences file cannot be read or written once in the log, and again after it worked in between. Threads: any.
class PreferencesReasons {
 public:
  enum class Operation { Read, Write };

  static PreferencesReasons& shared();

  void failed(const std::string& path, Operation operation, const std::string& reason);
  void succeeded(const std::string& path, Operation operation);

 private:
  std::mutex mutex_;
  std::map<std::pair<std::string, Operation>, std::set<std::string>> said_;
};

}  // namespace platform
