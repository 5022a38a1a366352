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
#include "platform/network/wire/URLErrorTable.h"

namespace platform::network {

/// One request and its reply on the wire: no redirects, no decisions. Network thread only.
class Exchange {
 public:
  struct Request {
    std::string url;
    std::string method;
    HTTPHeaders headers;
    /// Sent with its length; nothing for none.
    std::optional<Bytes> body;
    /// Answers for a server that asks with one of CURLAUTH_BASIC and CURLAUTH_DIGEST; 0 for none.
    long authentication = 0;
    std::string user;
    std::string password;
    /// Take any certificate.
    bool trustAnyCertificate = false;
    /// Connect (and shake hands), send nothing.
    bool connectOnly = false;
  };
  enum class Appetite { Take, Pause, Refuse };

  /// Hears of it; may not destroy the exchange except in `exchangeEnded`.
  class Listener {
   public:
    virtual ~Listener();
    /// The head of the reply proper: interim ones (RFC 9110, section 15.2) are left out.
    virtual void headArrived(int status, const HTTPHeaders& headers) = 0;
    /// A piece of the body, decoded. One that is paused is offered again after `goOn`; a refusal ends the exchange.
    virtual Appetite bodyArrived(std::span<const char> piece) = 0;
    /// Bytes of any kind went over the wire; the counts are of bodies.
    virtual void bytesMoved(std::int64_t sent, std::int64_t received) = 0;
    /// The body to be sent could not be read.
    virtual void bodyFailed(const std::string& why) = 0;
    virtual void exchangeEnded(const TransferEnd& end) = 0;
  };

  /// Begins it. Throws std::bad_alloc when libcurl has no memory for it.
  Exchange(CurlMulti& multi, Request request, Listener& listener);
  /// Ends it without a word when it still runs.
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// After a pause.
  void goOn();

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
  void headerLine(std::string_view line);
  void tellHead();
  Appetite bodyPiece(std::span<const char> bytes);
  [[nodiscard]] TransferEnd end(CURLcode result) const;

  CurlMulti& multi_;
  const Request request_;
  Listener& listener_;
  std::unique_ptr<CURL, Releaser> easy_;
  std::unique_ptr<curl_slist, Releaser> lines_;

  int status_ = 0;
  HTTPHeaders replyHeaders_;
  std::string lastField_;
  bool headComplete_ = false;
  bool headTold_ = false;
  bool bodyBegan_ = false;
  /// For a body that is encoded.
  std::unique_ptr<ContentDecoder> decoder_;
  bool decodingFailed_ = false;
  /// The decoder's last piece was not taken.
  bool held_ = false;
  /// Bytes that libcurl will bring again and that the decoder has.
  std::size_t decoded_ = 0;
  std::uint64_t bodyOffset_ = 0;
  std::int64_t moved_ = 0;
};

}  // namespace platform::network
