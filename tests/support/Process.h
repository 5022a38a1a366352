#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"

namespace kestrine::test {

/// A second process with its output captured. Killed and reaped when destroyed, and killed when the test process dies before: by the
/// keeper, or by the kernel when it has an environment of its own, and then also when the thread that made it ends.
class Process {
 public:
  struct Options {
    /// Added to (or, with an empty value and `clearEnvironment`, in place of) the test's environment.
    std::map<std::string, std::string> environment = {};
    bool clearEnvironment = false;
    std::string directory = {};
    std::string standardInput = {};
  };

  /// Starts `arguments[0]` (searched along PATH when it has no '/').
  explicit Process(const std::vector<std::string>& arguments, const Options& options);
  explicit Process(const std::vector<std::string>& arguments);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int number) const;
  /// The exit status as a shell tells it (128 + signal when killed); nullopt when it still runs after `limit`.
  std::optional<int> wait(std::chrono::milliseconds limit = kPatience);
  [[nodiscard]] bool isRunning();

  /// What it wrote so far.
  [[nodiscard]] std::string output();
  [[nodiscard]] std::string errorOutput();
  /// Waits until the output (or the error output) holds `text`.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds limit = kPatience);
  bool waitForErrorOutput(const std::string& text, std::chrono::milliseconds limit = kPatience);

 private:
  void drain();
  bool waitForText(const std::string& gathered, const std::string& text, std::chrono::milliseconds limit);
  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string output_;
  std::string errors_;
  std::optional<int> status_;
};

/// Runs to the end and returns status, output and error output.
struct Outcome {
  int status = -1;
  std::string output;
  std::string errorOutput;
};
/// A status of -1 says that it was still running after `limit`; it is then killed.
Outcome runToEnd(const std::vector<std::string>& arguments, const Process::Options& options = {},
                 std::chrono::milliseconds limit = kPatience);

}  // namespace kestrine::test
