#include "tests/fsevents/support/ProcessFigures.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/fsevents/support/KernelMarks.h"

namespace kestrine::test {

ProcessFigures figuresOf(pid_t process) {
  namespace fs = std::filesystem;
  ProcessFigures figures;
  const std::string folder = "/proc/" + std::to_string(process);
  std::ifstream status(folder + "/status");
  for (std::string key; status >> key;) {
    if (key == "RssAnon:") status >> figures.anonymous;
    if (key == "VmRSS:") status >> figures.resident;
    if (key == "Threads:") status >> figures.threads;
  }
  std::error_code ignored;
  figures.descriptors = static_cast<std::size_t>(std::distance(fs::directory_iterator(folder + "/fd", ignored), fs::directory_iterator()));
  figures.kernelMarks = kernelMarks(process).size();
  return figures;
}

}  // namespace kestrine::test
