// Runs a fuzz target on each file of a folder, and then on mutations of those files. The same mutations in every run, so that what fails
// once fails again: the number of the one that fails is printed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

#ifdef KESTRINE_SANITIZED
constexpr int kMutations = 20'000;
#else
constexpr int kMutations = 100'000;
#endif
constexpr std::size_t kLongest = 8192;

/// What readers of text look for.
constexpr std::string_view kTokens[] = {"{",
                                        "}",
                                        "[",
                                        "]",
                                        "\"",
                                        ":",
                                        ",",
                                        "\\u",
                                        "\\uD83D",
                                        "\\uDE00",
                                        "null",
                                        "true",
                                        "1e309",
                                        "-",
                                        "0",
                                        "99999999999999999999",
                                        "\xFF",
                                        "\xC3",
                                        "\xED\xA0\x80",
                                        "%",
                                        "%2F",
                                        "%00",
                                        "#",
                                        "?",
                                        "//",
                                        "@",
                                        " ",
                                        "\n",
                                        "\"error\":",
                                        "\"ReturnStatus\":",
                                        "\"FileToTransfer\":",
                                        "http://",
                                        "<dict>",
                                        "</dict>",
                                        "<key>k</key>",
                                        "<array>",
                                        "<string/>",
                                        "<!--",
                                        "<![CDATA[",
                                        "&#xD;"};

class Mutator {
 public:
  explicit Mutator(std::vector<std::string> corpus) : corpus_(std::move(corpus)) {}

  std::string next() {
    std::string text = corpus_[below(corpus_.size())];
    for (std::size_t change = below(6) + 1; change > 0; --change) mutate(text);
    text.resize(std::min(text.size(), kLongest));
    return text;
  }

 private:
  std::size_t below(std::size_t bound) { return random_() % bound; }

  void mutate(std::string& text) {
    const std::size_t position = below(text.size() + 1);
    switch (below(7)) {
      case 0:
        text.insert(position, kTokens[below(std::size(kTokens))]);
        return;
      case 1:
        text.insert(position, 1, static_cast<char>(below(256)));
        return;
      case 2:
        text.erase(position, below(8) + 1);
        return;
      case 3:
        if (position < text.size()) text[position] = static_cast<char>(text[position] ^ (1 << below(8)));
        return;
      case 4:
        text.insert(position, text.substr(below(text.size() + 1), below(64)));
        return;
      case 5:
        text = text.substr(0, position) + corpus_[below(corpus_.size())];
        return;
      default:
        text.insert(position, std::string(below(600), "[{\"1"[below(4)]));
        return;
    }
  }

  std::vector<std::string> corpus_;
  std::mt19937_64 random_{20'261'121};
};

void run(const std::string& text) { LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()); }

int number = 0;
[[noreturn]] void sayWhichAndAbort() {
  std::fprintf(stderr, "an exception left the target, at input %d (the corpus first, then its mutations)\n", number);
  std::abort();
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s CORPUS\n", words[0]);
    return 2;
  }
  std::set_terminate(sayWhichAndAbort);
  std::vector<std::string> corpus;
  for (const auto& entry : std::filesystem::directory_iterator(words[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  if (corpus.empty()) {
    std::fprintf(stderr, "no corpus in %s\n", words[1]);
    return 1;
  }
  // The order of a folder is nobody's promise.
  std::sort(corpus.begin(), corpus.end());
  for (const std::string& text : corpus) {
    ++number;
    run(text);
  }
  Mutator mutator(corpus);
  for (int i = 0; i < kMutations; ++i) {
    ++number;
    run(mutator.next());
  }
  std::printf("%zu files and %d mutations of them\n", corpus.size(), kMutations);
  return 0;
}
