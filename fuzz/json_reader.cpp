// Any bytes are a JSON text or a JSONError. What is read can be written, in both forms, and is then the same again.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/foundation/formats/JSON.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  platform::Object object;
  try {
    object = platform::readJSON(text);
  } catch (const platform::JSONError& error) {
    if (error.offset() > size) std::abort();
    return 0;
  }
  if (platform::readJSON(platform::jsonText(object)) != object) std::abort();
  if (platform::readJSON(platform::prettyJSONText(object)) != object) std::abort();
  return 0;
}
