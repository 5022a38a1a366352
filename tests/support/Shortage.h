#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace kestrine::test {

/// What the machine, or what it lets this process have, is short of at this moment: room or files in `folder`, descriptors, memory; in one
/// line. Nothing when there is enough of all.
std::optional<std::string> shortageOf(const std::string& folder);

/// What a failure says about a shortage in the system's own words, as exceptions do after everything has been given back.
std::optional<std::string> shortageIn(const std::string& failure);

/// Says after a failed test, in one line, what the machine was short of when it failed; says nothing when it was not.
class ShortageListener : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& test) override;
  void OnTestPartResult(const testing::TestPartResult& result) override;
  void OnTestEnd(const testing::TestInfo& test) override;

 private:
  std::optional<std::string> shortage_;
};

}  // namespace kestrine::test
