#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrine::test {

/// Runs `body(lane)` for each lane on a thread of its own, since most of each lane's time is waiting for a latency. Returns what they
/// complained of: a text returned, or an exception.
inline std::vector<std::string> runLanes(int count, const std::function<std::string(int lane)>& body) {
  std::mutex mutex;
  std::vector<std::string> complaints;
  std::vector<std::thread> threads;
  threads.reserve(count);
  for (int lane = 0; lane < count; ++lane) {
    threads.emplace_back([&, lane] {
      std::string complaint;
      try {
        complaint = body(lane);
      } catch (const std::exception& error) {
        complaint = error.what();
      }
      if (complaint.empty()) return;
      const std::lock_guard lock(mutex);
      complaints.push_back("lane " + std::to_string(lane) + ": " + complaint);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return complaints;
}

}  // namespace kestrine::test
