#include "app/call/CallRequest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "app/cli/CommandError.h"
#include "app/cli/Nearest.h"
#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

constexpr std::size_t kLargestFile = 256U << 20U;

[[noreturn]] void refuse(const std::string& text) { throw CommandError(ExitCode::Usage, "call: " + text); }

[[noreturn]] void refuseToRead(const std::string& name, int error) {
  throw CommandError(ExitCode::Failed, fmt::format("'{}' cannot be read: {}", name, platform::errnoText(error)));
}

std::string readDescriptor(int descriptor, const std::string& name) {
  auto text = platform::readAll(descriptor, kLargestFile);
  if (!text) refuseToRead(name, text.error());
  if (text->size() > kLargestFile) throw CommandError(ExitCode::Failed, fmt::format("'{}' is larger than 256 MiB", name));
  return *std::move(text);
}

std::string readFile(const std::string& path) {
  const platform::FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) refuseToRead(path, errno);
  return readDescriptor(file.fileDescriptor(), path);
}

/// What stands behind '=': text, or "@FILE" for a file's, or "@@" for an '@'.
std::string valueOf(const std::string& text) {
  if (!text.starts_with('@')) return text;
  if (text.starts_with("@@")) return text.substr(1);
  std::string value = readFile(text.substr(1));
  if (value.ends_with('\n')) value.pop_back();
  return value;
}

void checkProperty(const CallOperation& operation, const std::string& property) {
  if (std::ranges::find(operation.properties, property) != operation.properties.end()) return;
  refuse(fmt::format("{} has no property '{}'{}; it takes {}", operation.name, property, didYouMean(property, operation.properties),
                     fmt::join(operation.properties, ", ")));
}

PropertyValues recordOf(const CallOperation& operation, std::span<const std::string> words) {
  PropertyValues values;
  for (const std::string& word : words) {
    const auto equals = word.find('=');
    if (equals == std::string::npos) refuse(fmt::format("'{}' is not PROPERTY=VALUE", word));
    const std::string property = word.substr(0, equals);
    checkProperty(operation, property);
    if (!values.emplace(property, valueOf(word.substr(equals + 1))).second) refuse(fmt::format("'{}' is given twice", property));
  }
  return values;
}

PropertyValues recordOf(const CallOperation& operation, const platform::Object& element, std::size_t index) {
  if (!element.isDictionary()) throw CommandError(ExitCode::Failed, fmt::format("call: element {} is no JSON object", index));
  PropertyValues values;
  for (const auto& [property, value] : element.dictionaryValue()) {
    checkProperty(operation, property);
    if (value.isNull()) continue;
    if (!value.isString()) throw CommandError(ExitCode::Failed, fmt::format("call: '{}' of element {} is no text", property, index));
    values.emplace(property, value.stringValue());
  }
  return values;
}

std::vector<PropertyValues> batchOf(const CallOperation& operation, std::span<const std::string> words) {
  const bool isFile = words.size() == 1 && (words[0] == "-" || words[0].starts_with('@'));
  if (!isFile) refuse(fmt::format("{} takes a JSON array of objects, as @FILE or - (standard input)", operation.name));
  const std::string name = words[0] == "-" ? "standard input" : words[0].substr(1);
  try {
    const platform::Object elements = platform::readJSON(words[0] == "-" ? readDescriptor(STDIN_FILENO, name) : readFile(name));
    if (!elements.isArray()) throw CommandError(ExitCode::Failed, fmt::format("call: '{}' holds no JSON array", name));
    std::vector<PropertyValues> records;
    for (const platform::Object& element : elements.arrayValue()) records.push_back(recordOf(operation, element, records.size()));
    return records;
  } catch (const platform::JSONError& error) {
    throw CommandError(ExitCode::Failed, fmt::format("call: '{}' is no JSON, at byte {}: {}", name, error.offset(), error.what()));
  }
}

}  // namespace

const CallOperation& operationNamed(const std::string& word) {
  const auto operations = callOperations();
  const auto found = std::ranges::find_if(operations, [&](const CallOperation& operation) { return operation.isCalled(word); });
  if (found != operations.end()) return *found;
  std::vector<std::string> names;
  for (const CallOperation& operation : operations) names.push_back(operation.name);
  for (const CallOperation& operation : operations) names.push_back(operation.operationName());
  const std::string hint = didYouMean(word, names);
  refuse(fmt::format("unknown operation '{}'{}", word, hint.empty() ? "; 'kestrine call --list' names them" : hint));
}

std::vector<PropertyValues> requestRecords(const CallOperation& operation, std::span<const std::string> words) {
  if (operation.takesBatch) return batchOf(operation, words);
  return {recordOf(operation, words)};
}

}  // namespace kestrine
