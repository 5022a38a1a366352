#include <csignal>
#include <string>
#include <vector>

#include "app/call/CallCommand.h"
#include "app/cli/CommandLine.h"
#include "app/commands/Commands.h"
#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/StandardDescriptors.h"

namespace {

constexpr const kestrine::Command* kCommands[] = {&kestrine::kStartCommand,  &kestrine::kStopCommand,     &kestrine::kStatusCommand,
                                                  &kestrine::kFollowCommand, &kestrine::kDefaultsCommand, &kestrine::kEventsCommand,
                                                  &kestrine::kCallCommand};

}  // namespace

int main(int count, char** words) {
  platform::openMissingStandardDescriptors();
  // A reader that goes away is an error value of the write, not a signal that ends us in the middle of one.
  std::signal(SIGPIPE, SIG_IGN);
  platform::setApplicationIdentifier("kestrine");
  const std::vector<std::string> arguments(words + (count > 0 ? 1 : 0), words + count);
  return static_cast<int>(kestrine::runCommandLine(kCommands, arguments));
}
