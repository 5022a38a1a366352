#include "app/call/CallAnswerText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

struct StatusName {
  RestTaskStatus status;
  std::string_view name;
};
// Those that an operation can end with.
constexpr StatusName kStatusNames[] = {
    {RestStatusSuccess, "RestStatusSuccess"},
    {RestStatusNotReachable, "RestStatusNotReachable"},
    {RestStatusNetworkError, "RestStatusNetworkError"},
    {RestStatusBodyEncodingError, "RestStatusBodyEncodingError"},
    {RestStatusResponseParseError, "RestStatusResponseParseError"},
};

}  // namespace

std::string_view statusName(RestTaskStatus status) {
  const auto found = std::ranges::find(kStatusNames, status, &StatusName::status);
  return found == std::end(kStatusNames) ? "an unknown status" : found->name;
}

std::string answerText(const CallAnswer& answer) {
  std::string text = fmt::format("status {} {}\n", static_cast<int>(answer.status), statusName(answer.status));
  if (answer.error) text += fmt::format("error {}\n", answer.error->description());
  for (const AnswerLine& line : answer.lines) {
    text += fmt::format("{} = {}\n", line.place, line.value.isNil() ? "unset" : platform::jsonText(line.value));
  }
  return text;
}

std::string answerJSON(const CallOperation& operation, const CallAnswer& answer) {
  platform::Dictionary object = {
      {"operation", operation.name}, {"status", platform::Object::numberWithInt(answer.status)}, {"statusName", statusName(answer.status)}};
  if (answer.error) {
    object.emplace("error", platform::Dictionary{{"domain", answer.error->domain},
                                                 {"code", platform::Object::numberWithLongLong(answer.error->code)},
                                                 {"description", answer.error->localizedDescription}});
  }
  if (!answer.value.isNil()) object.emplace("result", answer.value);
  return platform::prettyJSONText(object) + "\n";
}

}  // namespace kestrine
