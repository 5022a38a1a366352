#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

namespace kestrine::test {

/// Why threads of this build wake for what is not the program's; empty where all sleep is its own.
std::string whySleepIsNotOurs();

/// How often each thread of the process but the calling one went to sleep so far, by name and number; a thread that came or went shows,
/// too.
std::map<std::string, long> sleepsOf(pid_t process);

/// What would wake a thread of the process, but the calling one, by the mere passing of time: a wait with a limit, a timer that is set; one
/// a line. Nothing where the kernel does not tell what threads wait for.
std::optional<std::string> timeThatWakes(pid_t process);

/// Waits until the process is at rest: nobody has woken for a while, and nothing waits for time to pass. What `sleepsOf` says then, or
/// nothing when it does not come to rest; `why` says what is waited for.
std::optional<std::map<std::string, long>> sleepsAtRest(pid_t process, std::string& why);

}  // namespace kestrine::test
