#include "platform/network/wire/CurlMulti.h"

#include <sys/epoll.h>

#include <new>
#include <utility>

#include "platform/foundation/log/Contained.h"

namespace platform::network {

CurlMulti::CurlMulti(int connectionsPerHost) : multi_(curl_multi_init()) {
  if (!multi_) throw std::bad_alloc();
  CURLM* const multi = multi_.get();
  curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, socketChanged);
  curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, timerChanged);
  curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, connectionsPerHost > 0 ? static_cast<long>(connectionsPerHost) : 0L);
  due_ = RunLoopSource::create([this] {
    assertOnNetworkThread();
    act(CURL_SOCKET_TIMEOUT, 0);
  });
  networkLoop().add(due_);
}

CurlMulti::~CurlMulti() {
  // Closing the connections tells of sockets, so the handle goes while the rest is still there.
  multi_.reset();
  due_->invalidate();
  if (timer_) timer_->invalidate();
  for (const auto& [socket, item] : sockets_) item->invalidate();
}

void CurlMulti::add(CURL* easy, Finished finished) {
  running_.emplace(easy, std::move(finished));
  if (curl_multi_add_handle(multi_.get(), easy) == CURLM_OK) return;
  running_.erase(easy);
  throw std::bad_alloc();
}

void CurlMulti::remove(CURL* easy) {
  if (running_.erase(easy) > 0) curl_multi_remove_handle(multi_.get(), easy);
}

// Called from inside libcurl, as is the next one: it must not be entered again from there, and no exception may leave.
int CurlMulti::socketChanged(CURL* /*easy*/, curl_socket_t socket, int what, void* self, void* /*unused*/) {
  assertOnNetworkThread();
  auto& multi = *static_cast<CurlMulti*>(self);
  if (what == CURL_POLL_REMOVE) {
    multi.forget(socket);
    return 0;
  }
  const unsigned events = ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0U) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0U);
  const bool watched = runContained("network: a socket cannot be watched", [&multi, socket, events] {
    assertOnNetworkThread();
    multi.watch(socket, events);
  });
  return watched ? 0 : -1;
}

void CurlMulti::watch(curl_socket_t socket, unsigned events) {
  auto& item = sockets_[socket];
  if (item) {
    item->setEvents(events);
    return;
  }
  item = RunLoopDescriptor::create(socket, events, [this, socket](unsigned ready) {
    assertOnNetworkThread();
    int action = 0;
    if ((ready & (EPOLLIN | EPOLLHUP)) != 0) action |= CURL_CSELECT_IN;
    if ((ready & EPOLLOUT) != 0) action |= CURL_CSELECT_OUT;
    if ((ready & EPOLLERR) != 0) action |= CURL_CSELECT_ERR;
    act(socket, action);
  });
  networkLoop().add(item);
}

void CurlMulti::forget(curl_socket_t socket) {
  const auto found = sockets_.find(socket);
  if (found == sockets_.end()) return;
  found->second->invalidate();
  sockets_.erase(found);
}

int CurlMulti::timerChanged(CURLM* /*multi*/, long milliseconds, void* self) {
  auto& multi = *static_cast<CurlMulti*>(self);
  const bool set = runContained("network: a timer cannot be set", [&multi, milliseconds] {
    assertOnNetworkThread();
    multi.setTimer(milliseconds);
  });
  return set ? 0 : -1;
}

void CurlMulti::setTimer(long milliseconds) {
  if (const auto timer = std::exchange(timer_, nullptr)) timer->invalidate();
  if (milliseconds == 0) due_->signal();
  if (milliseconds <= 0) return;
  timer_ = RunLoopTimer::create(static_cast<double>(milliseconds) / 1000, 0, [this] {
    assertOnNetworkThread();
    act(CURL_SOCKET_TIMEOUT, 0);
  });
  networkLoop().add(timer_);
}

void CurlMulti::act(curl_socket_t socket, int events) {
  int running = 0;
  curl_multi_socket_action(multi_.get(), socket, events, &running);
  tellFinished();
}

void CurlMulti::tellFinished() {
  int left = 0;
  while (const auto* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const easy = message->easy_handle;
    const CURLcode result = message->data.result;
    auto node = running_.extract(easy);
    curl_multi_remove_handle(multi_.get(), easy);
    // One that fails must not keep the others from hearing of their end.
    if (!node.empty()) runContained(kNetworkFailure, [&node, result] { node.mapped()(result); });
  }
}

}  // namespace platform::network
