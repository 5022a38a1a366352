#pragma once

#include <string>
#include <vector>

namespace kestrine::test {

/// One fenced block of a page.
struct DocsBlock {
  /// What stands behind the fence: "sh", "sh run", "".
  std::string info;
  std::vector<std::string> lines;
};

/// The pages that people read, relative to the source folder.
std::vector<std::string> docsPages();
std::string docsText(const std::string& page);
std::vector<DocsBlock> docsBlocks(const std::string& page);
/// The targets of the page's links that are files, relative to the source folder and without fragments.
std::vector<std::string> docsLinks(const std::string& page);

}  // namespace kestrine::test
