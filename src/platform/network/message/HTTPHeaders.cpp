#include "platform/network/message/HTTPHeaders.h"

#include <algorithm>

#include "platform/foundation/text/ASCII.h"

namespace platform {

const HTTPHeaders::Field* HTTPHeaders::find(std::string_view name) const {
  const auto found =
      std::find_if(fields_.begin(), fields_.end(), [name](const Field& field) { return equalIgnoringASCIICase(field.first, name); });
  return found == fields_.end() ? nullptr : &*found;
}

void HTTPHeaders::set(std::string_view name, std::string_view value) {
  if (const auto* field = find(name)) {
    fields_[static_cast<std::size_t>(field - fields_.data())].second = value;
  } else {
    fields_.emplace_back(name, value);
  }
}

void HTTPHeaders::add(std::string_view name, std::string_view value) {
  if (const auto* field = find(name)) {
    fields_[static_cast<std::size_t>(field - fields_.data())].second.append(",").append(value);
  } else {
    fields_.emplace_back(name, value);
  }
}

void HTTPHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [name](const Field& field) { return equalIgnoringASCIICase(field.first, name); });
}

std::optional<std::string> HTTPHeaders::value(std::string_view name) const {
  const auto* field = find(name);
  return field == nullptr ? std::nullopt : std::optional(field->second);
}

}  // namespace platform
