#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Services/RestTaskStatus.h"
#include "platform/foundation/base/Error.h"
#include "platform/foundation/value/Object.h"
#include "platform/network/message/Bytes.h"

namespace kestrine {

/// The values of a record's properties by their names; what is not in it is unset.
using PropertyValues = std::map<std::string, std::string>;

/// One value of an answer: where it stands ("returnStatus", "[0].fileId"), and what it is; nil when it is unset.
struct AnswerLine {
  std::string place;
  platform::Object value;
};

/// What an operation handed over.
struct CallAnswer {
  RestTaskStatus status = RestStatusSuccess;
  std::optional<platform::Error> error = {};
  /// The record, or the records, property by property. None without a record.
  std::vector<AnswerLine> lines = {};
  /// The same as JSON holds it: what is unset is left out. Nil without a record.
  platform::Object value = {};
  /// The answer of the operation that does not look into it.
  std::optional<platform::Bytes> data = {};
};
using CallHandler = std::function<void(const CallAnswer& answer)>;

/// One operation of the product's server, as somebody calls it by name: made of the same table that the client library works by.
struct CallOperation {
  int number = 0;
  /// The last part of the path without what cannot be seen: "LogError".
  std::string name;
  /// "asyncLogError:withCompiletionHandler:".
  std::string selector;
  std::string path;
  /// Of the request's record, in its order.
  std::vector<std::string> properties;
  /// Whether it takes any number of records instead of one.
  bool takesBatch = false;
  /// Calls it. `records` holds exactly one, unless it takes a batch, with no other names than those in `properties`.
  std::function<void(const std::vector<PropertyValues>& records, CallHandler handler)> start;

  /// By name, selector, operation name (the selector's first part without "async") or number; letters in either case.
  [[nodiscard]] bool isCalled(std::string_view word) const;
  /// The selector's first part without "async".
  [[nodiscard]] std::string operationName() const;
};

/// All of them, by number.
std::span<const CallOperation> callOperations();

}  // namespace kestrine
