#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/network/session/URLConnection.h"

namespace kestrine {

/// A connection that carries a text, by which a delegate of several can tell them apart. Made with platform::URLConnection::make, which
/// starts it unless asked not to. Threads: as its base; the tag belongs to whoever sets it.
class DownloadConnection : public platform::URLConnection {
 public:
  /// `initWithRequest:delegate:tag:`
  DownloadConnection(const platform::URLRequest& request, const std::shared_ptr<platform::URLConnectionDelegate>& delegate, std::string tag)
      : URLConnection(request, delegate), tag_(std::move(tag)) {}
  /// `initWithRequest:delegate:startImmediately:tag:`
  DownloadConnection(const platform::URLRequest& request, const std::shared_ptr<platform::URLConnectionDelegate>& delegate,
                     bool startImmediately, std::string tag)
      : URLConnection(request, delegate, startImmediately), tag_(std::move(tag)) {}

  [[nodiscard]] const std::string& tag() const { return tag_; }
  void setTag(std::string tag) { tag_ = std::move(tag); }

 private:
  std::string tag_;
};

}  // namespace kestrine
