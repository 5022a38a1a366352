#include "platform/network/wire/URLErrorTable.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/network/message/URLError.h"

namespace platform::network {

namespace {

struct Row {
  CURLcode result;
  std::int64_t code;
};

// An address of another scheme never reaches libcurl, so an unsupported protocol is a reply that is not HTTP. Running out of memory in
// the middle of a reply is a header line beyond libcurl's bound; see URLErrorCode.
constexpr std::array kRows = {
    Row{CURLE_UNSUPPORTED_PROTOCOL, NSURLErrorCannotParseResponse},
    Row{CURLE_FAILED_INIT, NSURLErrorResourceUnavailable},
    Row{CURLE_URL_MALFORMAT, NSURLErrorBadURL},
    Row{CURLE_NOT_BUILT_IN, NSURLErrorUnsupportedURL},
    Row{CURLE_COULDNT_RESOLVE_PROXY, NSURLErrorCannotFindHost},
    Row{CURLE_COULDNT_RESOLVE_HOST, NSURLErrorCannotFindHost},
    Row{CURLE_COULDNT_CONNECT, NSURLErrorCannotConnectToHost},
    Row{CURLE_WEIRD_SERVER_REPLY, NSURLErrorCannotParseResponse},
    Row{CURLE_PARTIAL_FILE, NSURLErrorNetworkConnectionLost},
    Row{CURLE_WRITE_ERROR, NSURLErrorCannotWriteToFile},
    Row{CURLE_READ_ERROR, NSURLErrorRequestBodyStreamExhausted},
    Row{CURLE_OUT_OF_MEMORY, NSURLErrorResourceUnavailable},
    Row{CURLE_OPERATION_TIMEDOUT, NSURLErrorTimedOut},
    Row{CURLE_SSL_CONNECT_ERROR, NSURLErrorSecureConnectionFailed},
    Row{CURLE_ABORTED_BY_CALLBACK, NSURLErrorCancelled},
    // A header line without a colon, or a zero byte in one.
    Row{CURLE_BAD_FUNCTION_ARGUMENT, NSURLErrorCannotParseResponse},
    Row{CURLE_INTERFACE_FAILED, NSURLErrorCannotConnectToHost},
    Row{CURLE_TOO_MANY_REDIRECTS, NSURLErrorHTTPTooManyRedirects},
    Row{CURLE_GOT_NOTHING, NSURLErrorNetworkConnectionLost},
    Row{CURLE_SEND_ERROR, NSURLErrorNetworkConnectionLost},
    Row{CURLE_RECV_ERROR, NSURLErrorNetworkConnectionLost},
    Row{CURLE_SSL_CERTPROBLEM, NSURLErrorClientCertificateRejected},
    Row{CURLE_SSL_CIPHER, NSURLErrorSecureConnectionFailed},
    Row{CURLE_PEER_FAILED_VERIFICATION, NSURLErrorServerCertificateUntrusted},
    Row{CURLE_BAD_CONTENT_ENCODING, NSURLErrorCannotDecodeContentData},
    Row{CURLE_SEND_FAIL_REWIND, NSURLErrorRequestBodyStreamExhausted},
    Row{CURLE_SSL_CACERT_BADFILE, NSURLErrorSecureConnectionFailed},
    Row{CURLE_SSL_SHUTDOWN_FAILED, NSURLErrorNetworkConnectionLost},
    Row{CURLE_AGAIN, NSURLErrorNetworkConnectionLost},
    Row{CURLE_SSL_ISSUER_ERROR, NSURLErrorServerCertificateUntrusted},
    Row{CURLE_SSL_INVALIDCERTSTATUS, NSURLErrorServerCertificateUntrusted},
    Row{CURLE_AUTH_ERROR, NSURLErrorUserAuthenticationRequired},
    Row{CURLE_SSL_CLIENTCERT, NSURLErrorClientCertificateRejected},
    Row{CURLE_UNRECOVERABLE_POLL, NSURLErrorResourceUnavailable},
};

}  // namespace

std::int64_t URLErrorCode(const TransferEnd& end) {
  if (end.result == CURLE_COULDNT_CONNECT && (end.systemError == ENETUNREACH || end.systemError == ENETDOWN)) {
    return NSURLErrorNotConnectedToInternet;
  }
  if (end.result == CURLE_OUT_OF_MEMORY && end.replyBegan) return NSURLErrorCannotParseResponse;
  const auto* const row = std::find_if(kRows.begin(), kRows.end(), [&end](const Row& candidate) { return candidate.result == end.result; });
  return row == kRows.end() ? NSURLErrorUnknown : row->code;
}

}  // namespace platform::network
