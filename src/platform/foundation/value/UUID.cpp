#include "platform/foundation/value/UUID.h"

#include <uuid/uuid.h>

#include <algorithm>

namespace platform {

UUID UUID::random() {
  uuid_t raw;
  uuid_generate_random(raw);
  Bytes bytes;
  std::copy(std::begin(raw), std::end(raw), bytes.begin());
  return UUID(bytes);
}

std::string UUID::string() const {
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_upper(bytes_.data(), text.data());
  return text.data();
}

}  // namespace platform
