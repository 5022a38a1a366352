// Another implementation of the format (libplist) as a witness: it reads what is written here, and what it writes is read here.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <memory>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;

using Node = std::unique_ptr<void, void (*)(plist_t)>;

Node makeNode() {
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "text", plist_new_string("a <b> & \xC3\xBC"));
  plist_dict_set_item(root, "yes", plist_new_bool(1));
  plist_dict_set_item(root, "number", plist_new_uint(4711));
  plist_dict_set_item(root, "real", plist_new_real(0.25));
  plist_dict_set_item(root, "data", plist_new_data("\x01\x02\xFF\x00", 4));
  plist_dict_set_item(root, "date", plist_new_date(1000, 0));
  plist_t array = plist_new_array();
  for (const char* text : {"one", "two"}) plist_array_append_item(array, plist_new_string(text));
  plist_dict_set_item(root, "array", array);
  return {root, plist_free};
}

Object expectedValue() {
  return Dictionary{
      {"text", Object("a <b> & \xC3\xBC")},
      {"yes", Object::numberWithBool(true)},
      {"number", Object::numberWithLongLong(4711)},
      {"real", Object::numberWithDouble(0.25)},
      {"data", Object(platform::Data{std::byte{1}, std::byte{2}, std::byte{255}, std::byte{0}})},
      {"date", Object(platform::Date{978307200.0 + 1000})},
      {"array", Object(Array{Object("one"), Object("two")})},
  };
}

TEST(PropertyListWitness, WritesXMLThatIsReadHere) {
  const auto node = makeNode();
  char* text = nullptr;
  std::uint32_t size = 0;
  plist_to_xml(node.get(), &text, &size);
  const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
  EXPECT_EQ(platform::readPropertyList({text, size}), expectedValue());
}

TEST(PropertyListWitness, WritesBinaryThatIsReadHere) {
  const auto node = makeNode();
  char* bytes = nullptr;
  std::uint32_t size = 0;
  plist_to_bin(node.get(), &bytes, &size);
  const std::unique_ptr<char, void (*)(void*)> owned(bytes, std::free);
  EXPECT_EQ(platform::readPropertyList({bytes, size}), expectedValue());
}

TEST(PropertyListWitness, ReadsTheXMLThatIsWrittenHere) {
  const std::string text = platform::writePropertyList(expectedValue());
  plist_t read = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &read);
  const Node owned(read, plist_free);
  ASSERT_NE(read, nullptr);
  const auto node = makeNode();
  ASSERT_EQ(plist_dict_get_size(read), 7U);
  for (const char* key : {"text", "yes", "number", "real", "data", "date"}) {
    EXPECT_TRUE(plist_compare_node_value(plist_dict_get_item(read, key), plist_dict_get_item(node.get(), key))) << key;
  }
  plist_t array = plist_dict_get_item(read, "array");
  ASSERT_EQ(plist_array_get_size(array), 2U);
  char* second = nullptr;
  plist_get_string_val(plist_array_get_item(array, 1), &second);
  EXPECT_STREQ(second, "two");
  std::free(second);
}

}  // namespace
}  // namespace kestrine::test
