#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/network/message/Bytes.h"
#include "platform/network/message/HTTPHeaders.h"
#include "platform/network/wire/ContentDecoder.h"
#include "platform/network/wire/CurlMulti.h"
#include "platform/network/wire/NetworkThread.h"
#include "platform/network/wire/URLErrorTable.h"

namespace platform::network {

/// How a request answers a server that asks who we are.
enum class HTTPAuthentication { None, Basic, Digest };

/// One request and its reply on the wire: no redirects, no decisions. Network thread only.
class Exchange {
 public:
  struct Request {
    std::string url;
    std::string method;
    HTTPHeaders headers;
    /// Sent with its length; nothing for none.
    std::optional<Bytes> body;
    HTTPAuthentication authentication = HTTPAuthentication::None;
    std::string user;
    std::string password;
    /// Take any certificate.
    bool trustAnyCertificate = false;
    /// Connect (and shake hands), send nothing.
    bool connectOnly = false;
  };
  enum class Appetite { Take, Pause, Refuse };

  /// Hears of it; may not destroy the exchange except in `exchangeEnded`. An exception that leaves one of the others ends the exchange.
  class Listener {
   public:
    virtual ~Listener();
    /// The head of the reply proper: interim ones (RFC 9110, section 15.2) are left out.
    virtual void headArrived(int status, const HTTPHeaders& headers) REQUIRES(networkThread) = 0;
    /// A piece of the body, decoded. One that is paused is offered again after `goOn`; a refusal ends the exchange.
    virtual Appetite bodyArrived(std::span<const char> piece) REQUIRES(networkThread) = 0;
    /// Bytes of any kind went over the wire; the counts are of bodies.
    virtual void bytesMoved(std::int64_t sent, std::int64_t received) REQUIRES(networkThread) = 0;
    /// The body to be sent could not be read.
    virtual void bodyFailed(const std::string& why) REQUIRES(networkThread) = 0;
    virtual void exchangeEnded(const TransferEnd& end) REQUIRES(networkThread) = 0;
  };

  /// Begins it. Throws std::bad_alloc when libcurl has no memory for it.
  Exchange(CurlMulti& multi, Request request, Listener& listener);
  /// Ends it without a word when it still runs.
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// After a pause.
  void goOn() REQUIRES(networkThread);

 private:
  struct Releaser {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  static std::size_t headerCallback(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t writeCallback(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t readCallback(char* room, std::size_t size, std::size_t count, void* self);
  static int seekCallback(void* self, curl_off_t offset, int origin);
  static int progressCallback(void* self, curl_off_t toReceive, curl_off_t received, curl_off_t toSend, curl_off_t sent);

  void configure();
  void configureMethod();
  void configureBody();
  void configureSecurity();
  void append(const std::string& line);
  void ended(CURLcode result) REQUIRES(networkThread);
  void headerLine(std::string_view line) REQUIRES(networkThread);
  void tellHead() REQUIRES(networkThread);
  Appetite bodyPiece(std::span<const char> bytes) REQUIRES(networkThread);
  std::size_t readBody(std::span<char> room) REQUIRES(networkThread);
  [[nodiscard]] TransferEnd end(CURLcode result) const REQUIRES(networkThread);

  CurlMulti& multi_;
  const Request request_;
  Listener& listener_;
  std::unique_ptr<CURL, Releaser> easy_;
  std::unique_ptr<curl_slist, Releaser> lines_;

  int status_ GUARDED_BY(networkThread) = 0;
  HTTPHeaders replyHeaders_ GUARDED_BY(networkThread);
  std::string lastField_ GUARDED_BY(networkThread);
  bool headComplete_ GUARDED_BY(networkThread) = false;
  bool headTold_ GUARDED_BY(networkThread) = false;
  bool bodyBegan_ GUARDED_BY(networkThread) = false;
  /// For a body that is encoded.
  std::unique_ptr<ContentDecoder> decoder_ GUARDED_BY(networkThread);
  bool decodingFailed_ GUARDED_BY(networkThread) = false;
  /// The decoder's last piece was not taken.
  bool held_ GUARDED_BY(networkThread) = false;
  /// Bytes that libcurl will bring again and that the decoder has.
  std::size_t decoded_ GUARDED_BY(networkThread) = 0;
  std::uint64_t bodyOffset_ GUARDED_BY(networkThread) = 0;
  std::int64_t moved_ GUARDED_BY(networkThread) = 0;
};

}  // namespace platform::network
