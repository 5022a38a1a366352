#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

/// Header fields of a request or a reply: names are compared without regard to case (RFC 9110, section 5.1), the order and the spelling of
/// the first use are kept. A value.
class HTTPHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  /// Replaces the field, whatever it held.
  void set(std::string_view name, std::string_view value);
  /// Appends to the field, separated by ',', as RFC 9110 (section 5.3) lets equal fields be joined; the same as `set` when there is none.
  void add(std::string_view name, std::string_view value);
  void remove(std::string_view name);
  [[nodiscard]] std::optional<std::string> value(std::string_view name) const;
  [[nodiscard]] bool contains(std::string_view name) const { return find(name) != nullptr; }
  [[nodiscard]] const std::vector<Field>& fields() const { return fields_; }
  [[nodiscard]] bool empty() const { return fields_.empty(); }

  friend bool operator==(const HTTPHeaders&, const HTTPHeaders&) = default;

 private:
  [[nodiscard]] const Field* find(std::string_view name) const;
  std::vector<Field> fields_;
};

}  // namespace platform
