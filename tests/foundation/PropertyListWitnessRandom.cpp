// Random lists through our readers and writers and through libplist's: what either writes, the other reads as the same.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Object;

using Node = std::unique_ptr<void, void (*)(plist_t)>;

/// A random value and libplist's node of it.
struct Twin {
  Object value;
  plist_t node;
};

class RandomLists {
 public:
  explicit RandomLists(unsigned seed) : random_(seed) {}

  /// `binary`: with what only that form holds.
  Twin list(bool binary) {
    binary_ = binary;
    return dictionary(0);
  }

 private:
  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }

  std::string text() {
    static const char* const kPieces[] = {"a",
                                          "Z",
                                          "9",
                                          " ",
                                          "<",
                                          ">",
                                          "&",
                                          "'",
                                          "\"",
                                          "\n",
                                          "\t",
                                          "]]>",
                                          "\xC3\xBC",
                                          "\xE4\xB8\x96",
                                          "\xF0\x9F\xA6\x85",
                                          "\xEF\xBF\xBD",
                                          "longer words between"};
    std::string text;
    for (std::uint64_t left = below(8); left > 0; --left) text += kPieces[below(std::size(kPieces))];
    if (binary_ && below(8) == 0) text += "\x01";
    return text;
  }

  Twin value(int depth) {
    switch (below(depth < 4 ? 8 : 6)) {
      case 0: {
        const bool yes = below(2) == 0;
        return {Object::numberWithBool(yes), plist_new_bool(yes ? 1 : 0)};
      }
      case 1: {
        const std::uint64_t number = random_() >> below(64) & 0x7FFFFFFFFFFFFFFFU;
        return {Object::numberWithLongLong(static_cast<std::int64_t>(number)), plist_new_uint(number)};
      }
      case 2: {
        const double number = std::ldexp(static_cast<double>(static_cast<std::int64_t>(random_())), static_cast<int>(below(200)) - 100);
        return {Object::numberWithDouble(number), plist_new_real(number)};
      }
      case 3: {
        const std::string made = text();
        return {Object(made), plist_new_string(made.c_str())};
      }
      case 4: {
        Data data(below(40));
        for (auto& byte : data) byte = static_cast<std::byte>(below(256));
        return {Object(data), plist_new_data(reinterpret_cast<const char*>(data.data()), data.size())};
      }
      case 5: {
        const auto seconds = static_cast<std::int32_t>(below(1'000'000'000));
        // A quarter is exact in a double.
        const std::int32_t fraction = binary_ && below(2) == 0 ? 250000 : 0;
        return {Object(platform::Date{978307200.0 + seconds + fraction / 1e6}), plist_new_date(seconds, fraction)};
      }
      case 6:
        return array(depth + 1);
      default:
        return dictionary(depth + 1);
    }
  }

  Twin array(int depth) {
    Array values;
    plist_t node = plist_new_array();
    for (std::uint64_t left = below(16); left > 0; --left) {
      Twin twin = value(depth);
      values.push_back(std::move(twin.value));
      plist_array_append_item(node, twin.node);
    }
    return {std::move(values), node};
  }

  Twin dictionary(int depth) {
    Dictionary values;
    plist_t node = plist_new_dict();
    for (std::uint64_t left = below(16); left > 0; --left) {
      const std::string key = text() + std::to_string(left);
      Twin twin = value(depth);
      values.insert_or_assign(key, std::move(twin.value));
      plist_dict_set_item(node, key.c_str(), twin.node);
    }
    return {std::move(values), node};
  }

  std::mt19937_64 random_;
  bool binary_ = false;
};

std::string written(plist_t node, bool binary) {
  char* bytes = nullptr;
  std::uint32_t size = 0;
  binary ? plist_to_bin(node, &bytes, &size) : plist_to_xml(node, &bytes, &size);
  const std::unique_ptr<char, void (*)(void*)> owned(bytes, std::free);
  return {bytes, size};
}

/// What libplist makes of our list, by its own binary form.
std::string throughTheWitness(const std::string& list) {
  plist_t node = nullptr;
  plist_from_memory(list.data(), static_cast<std::uint32_t>(list.size()), &node);
  const Node owned(node, plist_free);
  return node == nullptr ? std::string() : written(node, true);
}

TEST(PropertyListWitness, ReadsAndWritesTheSameListsAsWeDo) {
  const char* given = std::getenv("KESTRINE_LIST_ROUNDS");
  const long rounds = given != nullptr ? std::atol(given) : longOrShort(300, 50);
  for (long round = 0; round < rounds; ++round) {
    RandomLists lists(static_cast<unsigned>(round));
    for (const bool binary : {false, true}) {
      const Twin twin = lists.list(binary);
      const Node owned(twin.node, plist_free);
      const std::string theirs = written(twin.node, binary);
      ASSERT_EQ(platform::readPropertyList(theirs), twin.value) << "round " << round << ": " << theirs;
      const std::string ours = platform::writePropertyList(twin.value);
      ASSERT_EQ(platform::readPropertyList(ours), twin.value) << "round " << round;
      ASSERT_EQ(platform::readPropertyList(throughTheWitness(ours)), twin.value) << "round " << round << ": " << ours;
    }
  }
}

}  // namespace
}  // namespace kestrine::test
