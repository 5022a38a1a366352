#pragma once

#include <memory>
#include <string>

namespace kestrine::bench {

/// A client and a second process that takes a small dictionary of four entries and, when asked to, sends one back that tells how many it
/// has taken. Three of them do the same work by different means.
class Exchange {
 public:
  virtual ~Exchange() = default;
  /// Sends one dictionary, and no answer is expected.
  virtual void send(long number) = 0;
  /// Sends one and waits for its answer: how many dictionaries were taken so far.
  virtual long ask(long number) = 0;
  /// `count` times ask, in whatever way has the least to wait for; the last answer.
  virtual long askMany(long count) {
    long answer = 0;
    for (long number = 0; number < count; ++number) answer = ask(number);
    return answer;
  }

  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

 protected:
  Exchange() = default;
};

inline constexpr const char* kInterface = "FileWatcherXpcServiceProtocol";
inline constexpr const char* kSelector = "callToFileWatcher";

// Each starts its second process when it is made, which must be before this process has any thread, and nothing else before its first use.

/// platform::xpc::Connection and Listener. `folder` becomes XDG_RUNTIME_DIR.
std::unique_ptr<Exchange> makeChannelExchange(const std::string& folder);
/// sd-bus on a private connection, a{sv} as argument.
std::unique_ptr<Exchange> makeBusExchange();
/// A socketpair, written and read by one thread at each end; the channel's encoding.
std::unique_ptr<Exchange> makeSocketExchange();

/// The second process: true there. It ends with this one.
bool becomesSecondProcess();

}  // namespace kestrine::bench
