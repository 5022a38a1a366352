#include "app/call/CallOperation.h"

#include <fmt/format.h>

#include <tuple>
#include <type_traits>
#include <utility>

#include "Services/Endpoints.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

template <class Query>
Query recordFrom(const PropertyValues& values) {
  Query query;
  for (const auto& [property, member, key] : kFieldsOf<Query>) {
    if (const auto found = values.find(std::string(property)); found != values.end()) query.*member = found->second;
  }
  return query;
}

// The answer's lines and its value, for each kind of answer that there is.

void describe(const platform::Object& value, const std::string& place, CallAnswer& answer) {
  answer.lines.push_back({place.empty() ? "result" : place, value});
  answer.value = value;
}

template <class Record>
void describe(const std::vector<Record>& records, const std::string& place, CallAnswer& answer);

/// Goes through the members of `record` that are arrays of records.
template <class Record, class Take>
void forEachSection(const Record& record, const Take& take) {
  if constexpr (std::is_same_v<Record, GetSharedFilesTransferDataResponseData>) {
    take("fileToTransferArray", record.fileToTransferArray);
    take("OwnerComputersArray", record.OwnerComputersArray);
    take("RecFileFromTransferArray", record.RecFileFromTransferArray);
    take("SharedfoldersWithStatusArray", record.SharedfoldersWithStatusArray);
  }
}

template <class Record>
void describe(const Record& record, const std::string& place, CallAnswer& answer) {
  platform::Dictionary value;
  const std::string prefix = place.empty() ? "" : place + ".";
  forEachSection(record, [&](const char* property, const auto& records) {
    describe(records, prefix + property, answer);
    value.insert_or_assign(property, std::exchange(answer.value, {}));
  });
  for (const auto& [property, member, key] : kFieldsOf<Record>) {
    const platform::Object& held = record.*member;
    answer.lines.push_back({prefix + std::string(property), held});
    if (!held.isNil()) value.insert_or_assign(std::string(property), held);
  }
  answer.value = std::move(value);
}

template <class Record>
void describe(const std::vector<Record>& records, const std::string& place, CallAnswer& answer) {
  platform::Array values;
  for (std::size_t i = 0; i < records.size(); ++i) {
    describe(records[i], fmt::format("{}[{}]", place, i), answer);
    values.push_back(std::exchange(answer.value, {}));
  }
  if (records.empty()) answer.lines.push_back({place.empty() ? "result" : place, platform::Array{}});
  answer.value = std::move(values);
}

template <class Result>
RestHandler<Result> describing(CallHandler handler) {
  return [handler = std::move(handler)](const RestAnswer<Result>& given, RestTaskStatus status) {
    CallAnswer answer{.status = status, .error = given.error};
    if (given.result) describe(*given.result, "", answer);
    handler(answer);
  };
}

RestStreamHandler describingStream(CallHandler handler) {
  return [handler = std::move(handler)](const std::shared_ptr<const platform::URLResponse>& response,
                                        const std::optional<platform::Bytes>& data, RestTaskStatus status) {
    CallAnswer answer{.status = status, .data = data};
    if (response) {
      answer.lines.push_back({"statusCode", platform::Object::numberWithInt(response->statusCode())});
      answer.lines.push_back({"MIMEType", response->MIMEType()});
    }
    if (data) answer.lines.push_back({"length", platform::Object::numberWithUnsignedLongLong(data->length())});
    platform::Dictionary value;
    for (const AnswerLine& line : answer.lines) value.insert_or_assign(line.place, line.value);
    if (response) answer.value = std::move(value);
    handler(answer);
  };
}

/// "Downloads.svc/UpdateBSDownloadStreamFailed" and whatever cannot be seen behind it: "UpdateBSDownloadStreamFailed".
std::string lastComponent(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);
  return std::string(path.substr(0, path.find('\xEF')));
}

/// What is common to all rows of the table.
template <class Query, class Row>
CallOperation operationOf(const Row& row) {
  CallOperation operation{.number = row.number,
                          .name = lastComponent(row.path),
                          .selector = std::string(row.selector),
                          .path = std::string(row.path),
                          .properties = {},
                          .takesBatch = false,
                          .start = {}};
  for (const auto& field : kFieldsOf<Query>) operation.properties.emplace_back(field.property);
  return operation;
}

template <class Query, class Result>
CallOperation operation(const Endpoint<Query, Result>& row) {
  CallOperation operation = operationOf<Query>(row);
  operation.start = [&row](const std::vector<PropertyValues>& records, CallHandler handler) {
    row.method(recordFrom<Query>(records.front()), describing<Result>(std::move(handler)));
  };
  return operation;
}

template <class Query, class Result>
CallOperation operation(const Endpoint<std::vector<Query>, Result>& row) {
  CallOperation operation = operationOf<Query>(row);
  operation.takesBatch = true;
  operation.start = [&row](const std::vector<PropertyValues>& records, CallHandler handler) {
    std::vector<Query> batch;
    batch.reserve(records.size());
    for (const PropertyValues& values : records) batch.push_back(recordFrom<Query>(values));
    row.method(batch, describing<Result>(std::move(handler)));
  };
  return operation;
}

template <class Query>
CallOperation operation(const StreamEndpoint<Query>& row) {
  CallOperation operation = operationOf<Query>(row);
  operation.start = [&row](const std::vector<PropertyValues>& records, CallHandler handler) {
    row.method(recordFrom<Query>(records.front()), describingStream(std::move(handler)));
  };
  return operation;
}

}  // namespace

std::string CallOperation::operationName() const {
  constexpr std::string_view kPrefix = "async";
  return selector.substr(kPrefix.size(), selector.find(':') - kPrefix.size());
}

bool CallOperation::isCalled(std::string_view word) const {
  return platform::equalIgnoringASCIICase(word, name) || platform::equalIgnoringASCIICase(word, selector) ||
         platform::equalIgnoringASCIICase(word, operationName()) || word == std::to_string(number);
}

std::span<const CallOperation> callOperations() {
  static const auto& operations = *new std::vector<CallOperation>(
      std::apply([](const auto&... rows) { return std::vector<CallOperation>{operation(rows)...}; }, kEndpoints));
  return operations;
}

}  // namespace kestrine
