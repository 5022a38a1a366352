#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/Measure.h"

namespace kestrine::bench {

/// A folder for the time of one benchmark.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_((std::filesystem::temp_directory_path() / "kestrine-micro-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) fail("mkdtemp");
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kestrine::bench
