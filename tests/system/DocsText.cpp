#include "tests/system/DocsText.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace kestrine::test {

std::vector<std::string> docsPages() {
  const std::filesystem::path root(KESTRINE_SOURCE_DIR);
  std::vector<std::string> pages;
  for (const auto& folder : {root, root / "docs"}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".md") pages.push_back(entry.path().lexically_relative(root).string());
    }
  }
  std::sort(pages.begin(), pages.end());
  return pages;
}

std::string docsText(const std::string& page) {
  const std::ifstream file(std::string(KESTRINE_SOURCE_DIR) + "/" + page);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<DocsBlock> docsBlocks(const std::string& page) {
  constexpr std::string_view kFence = "```";
  std::vector<DocsBlock> blocks;
  std::istringstream text(docsText(page));
  bool inside = false;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with(kFence)) {
      inside = !inside;
      if (inside) blocks.push_back({line.substr(kFence.size()), {}});
    } else if (inside) {
      blocks.back().lines.push_back(line);
    }
  }
  return blocks;
}

std::vector<std::string> docsLinks(const std::string& page) {
  static const std::regex& link = *new std::regex(R"(\]\(([^)#]+)(#[^)]*)?\))");
  const std::string text = docsText(page);
  const std::filesystem::path folder = std::filesystem::path(page).parent_path();
  std::vector<std::string> targets;
  for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match) {
    const std::string target = (*match)[1];
    if (target.find("://") == std::string::npos) targets.push_back((folder / target).lexically_normal().string());
  }
  return targets;
}

}  // namespace kestrine::test
