#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <unordered_map>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/network/wire/NetworkThread.h"

namespace platform::network {

/// One libcurl multi handle on the network thread's run loop: its sockets are items of the loop, and so is its one timer. Network thread
/// only.
class CurlMulti {
 public:
  /// What became of an easy handle. It is out of the multi handle already, so it may be destroyed.
  using Finished = std::function<void(CURLcode result)>;

  /// Zero or less: no limit.
  explicit CurlMulti(int connectionsPerHost);
  ~CurlMulti();
  CurlMulti(const CurlMulti&) = delete;
  CurlMulti& operator=(const CurlMulti&) = delete;

  void add(CURL* easy, Finished finished) REQUIRES(networkThread);
  /// Ends the transfer, if it still runs, without a word.
  void remove(CURL* easy) REQUIRES(networkThread);

 private:
  struct Releaser {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  static int socketChanged(CURL* easy, curl_socket_t socket, int what, void* self, void* unused);
  static int timerChanged(CURLM* multi, long milliseconds, void* self);
  void watch(curl_socket_t socket, unsigned events) REQUIRES(networkThread);
  void forget(curl_socket_t socket) REQUIRES(networkThread);
  void act(curl_socket_t socket, int events) REQUIRES(networkThread);
  void setTimer(long milliseconds) REQUIRES(networkThread);
  void tellFinished() REQUIRES(networkThread);

  std::unique_ptr<CURLM, Releaser> multi_;
  std::unordered_map<curl_socket_t, std::shared_ptr<RunLoopDescriptor>> sockets_ GUARDED_BY(networkThread);
  std::shared_ptr<RunLoopTimer> timer_ GUARDED_BY(networkThread);
  /// For a timer that is due at once.
  std::shared_ptr<RunLoopSource> due_ GUARDED_BY(networkThread);
  std::unordered_map<CURL*, Finished> running_ GUARDED_BY(networkThread);
};

}  // namespace platform::network
