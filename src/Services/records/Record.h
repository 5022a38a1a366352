#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace kestrine {

// Records are what the operations of the product's server take and give: plain structs whose members bear the names of their properties,
// irregular ones included. Assigning and reading a member is all there is to them.
//
// A request record holds text or nothing: the server knows no other kind of value. An answer's record holds what the server sent as it was
// sent, whatever its kind: nil stands for "not sent", and null, text and numbers stay apart.

/// A property of a request record; nullopt when unset.
using Text = std::optional<std::string>;

/// A property of a record: its name, the member that holds it, and its key in a JSON object of the server's.
template <class Record, class Value>
struct Field {
  std::string_view property;
  Value Record::*member;
  std::string_view key;
};
template <class Record, class Value>
Field(std::string_view, Value Record::*, std::string_view) -> Field<Record, Value>;

/// The key of a property that no answer fills.
inline constexpr std::string_view kNeverFilled;

/// The properties of `Record` in the order in which they are stored into a request or read from an answer: an array of Field. The one
/// place that knows a record's keys; each record's header specialises it below the record.
template <class Record>
inline constexpr std::nullptr_t kFieldsOf = nullptr;

}  // namespace kestrine
