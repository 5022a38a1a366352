#include "app/cli/ExitCode.h"

namespace kestrine {

namespace {

constexpr ExitNote kExitCodes[] = {
    {ExitCode::Ok, "done"},
    {ExitCode::Failed, "something could not be read, written or reached; the message says what"},
    {ExitCode::Usage, "the command line was not understood"},
    {ExitCode::NotRunning, "the service is not running"},
    {ExitCode::NotWatching, "the watch could not start, or none stands"},
    {ExitCode::UnusableBase, "no base folder is set, or the service cannot watch the one that is"},
    {ExitCode::TimedOut, "no answer, or no end, within the time allowed"},
    {ExitCode::NoService, "the service is not installed, or does not start"},
    {ExitCode::NotFound, "no such preferences domain or key"},
    {ExitCode::Damaged, "the file of a preferences domain is damaged"},
};

}  // namespace

std::span<const ExitNote> exitCodes() { return kExitCodes; }

}  // namespace kestrine
