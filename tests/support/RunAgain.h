#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kestrine::test {

/// The words of a text, cut at blanks.
std::vector<std::string> wordsOf(const std::string& text);

/// Runs the test that is running once more, alone, in a second process: `way` is put before the program's own name, as unshare(1) with its
/// options, and may be empty. What fails there fails the test here, with its output; when it is left out there it is left out here.
void runTestAgain(const std::vector<std::string>& way, const std::map<std::string, std::string>& environment,
                  std::chrono::milliseconds limit = std::chrono::seconds(240));
/// The same with a copy of this program at another path.
void runTestAgain(const std::vector<std::string>& way, const std::string& program, const std::map<std::string, std::string>& environment,
                  std::chrono::milliseconds limit = std::chrono::seconds(240));

}  // namespace kestrine::test
