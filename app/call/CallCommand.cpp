#include "app/call/CallCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "app/call/CallAnswerText.h"
#include "app/call/CallOperation.h"
#include "app/call/CallRequest.h"
#include "app/call/CallWait.h"
#include "app/cli/CommandError.h"
#include "app/cli/PrintError.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

constexpr Option kOptions[] = {
    {"--list", "", "print the operations with the properties of their requests"},
    {"--json", "", "print JSON: what is unset is left out"},
    {"--os", "VERSION", "behave as on this version of the operating system, for example 10.7.5 or 10.9"},
    {"--output", "FILE", "where the data goes that GetTopFileUploadWithStream answers"},
};

constexpr ExitNote kExits[] = {
    {ExitCode::Ok, "the operation's status is 0"},
    {ExitCode::Failed, "any other status, or no answer at all"},
};

constexpr std::string_view kUploadOperation = "UpdateFileRequestWithStream";

void checkVersion(const std::string& version) {
  const bool isLegal = !version.empty() && version.front() != '.' && version.back() != '.' && version.find("..") == std::string::npos &&
                       std::ranges::count(version, '.') <= 2 && version.find_first_not_of("0123456789.") == std::string::npos;
  if (!isLegal) throw CommandError(ExitCode::Usage, fmt::format("call: '--os {}' is no version, such as 10.7.5", version));
}

void printList(bool asJSON) {
  if (asJSON) {
    platform::Array list;
    for (const CallOperation& operation : callOperations()) {
      platform::Array properties(operation.properties.begin(), operation.properties.end());
      list.push_back(platform::Dictionary{{"number", platform::Object::numberWithInt(operation.number)},
                                          {"name", operation.name},
                                          {"selector", operation.selector},
                                          {"path", operation.path},
                                          {"properties", std::move(properties)}});
    }
    fmt::print("{}\n", platform::prettyJSONText(list));
    return;
  }
  for (const CallOperation& operation : callOperations()) {
    fmt::print("{:>2}  {:<35} {}{}\n", operation.number, operation.name, fmt::join(operation.properties, " "),
               operation.takesBatch ? "  (any number, from a JSON file)" : "");
  }
}

void store(const platform::Bytes& data, const std::string& file) {
  const auto error = data.writeToFile(file);
  if (error) throw CommandError(ExitCode::Failed, fmt::format("'{}' cannot be written: {}", file, error->localizedDescription));
}

ExitCode run(const Arguments& arguments) {
  const bool asJSON = arguments.has("--json");
  if (arguments.has("--list")) {
    printList(asJSON);
    return ExitCode::Ok;
  }
  const auto& operands = arguments.operands();
  if (operands.empty()) throw CommandError(ExitCode::Usage, "call: which operation? 'kestrine call --list' names them");
  const CallOperation& operation = operationNamed(operands.front());
  const std::vector<PropertyValues> records = requestRecords(operation, std::span(operands).subspan(1));
  if (const auto version = arguments.value("--os")) {
    checkVersion(*version);
    setenv("KESTRINE_SYSTEM_VERSION", version->c_str(), 1);
  }
  if (operation.name == kUploadOperation) {
    printError(
        "kestrine: call: the file is uploaded through a copy of the same name in the home folder; what has that name there is "
        "overwritten, and is removed when the upload succeeds, also when it is the file itself\n");
  }

  const std::optional<CallAnswer> answer = callAndWait(operation, records);
  if (!answer) throw CommandError(ExitCode::Failed, "the operation ended without an answer; the log above may say why");
  if (const auto file = arguments.value("--output"); file && answer->data) store(*answer->data, *file);
  const std::string text = asJSON ? answerJSON(operation, *answer) : answerText(*answer);
  fmt::print("{}", text);
  return answer->status == RestStatusSuccess ? ExitCode::Ok : ExitCode::Failed;
}

}  // namespace

constinit const Command kCallCommand{
    .name = "call",
    .operands = "OPERATION [PROPERTY=VALUE]...",
    .summary = "Calls an operation of the product's server.",
    .details =
        "OPERATION is a name, a selector or a number of 'kestrine call --list', which also names the properties. PROPERTY=@FILE takes the\n"
        "value from a file, without the line end at its end (for passwords); a value that begins with '@' is written with two of them. "
        "What\n"
        "is not given is not sent. SyncFilesInTableAndCloud takes its changes as @FILE or - (standard input): a JSON array of objects "
        "with\n"
        "these properties as texts.\n\n"
        "Prints the status and the answer's properties as JSON values, with the word unset for what the server did not send. What the "
        "client\n"
        "logs goes to standard error.\n\n"
        "UpdateFileRequestWithStream uploads a file through a copy of the same name in the home folder. What has that name there is\n"
        "overwritten, and is removed when the upload succeeds, also when it is the file itself.",
    .options = kOptions,
    .fewestOperands = 0,
    .mostOperands = std::numeric_limits<std::size_t>::max(),
    .exits = kExits,
    .run = run,
};

}  // namespace kestrine
