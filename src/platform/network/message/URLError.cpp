#include "platform/network/message/URLError.h"

#include <algorithm>
#include <array>

namespace platform {

namespace {

struct Sentence {
  std::int64_t code;
  const char* text;
};

constexpr std::array kSentences = {
    Sentence{NSURLErrorUnknown, "An unknown error occurred."},
    Sentence{NSURLErrorCancelled, "The request was cancelled."},
    Sentence{NSURLErrorBadURL, "The request is malformed."},
    Sentence{NSURLErrorTimedOut, "The request timed out."},
    Sentence{NSURLErrorUnsupportedURL, "The address is missing or of a kind that is not supported."},
    Sentence{NSURLErrorCannotFindHost, "No server with that name was found."},
    Sentence{NSURLErrorCannotConnectToHost, "The server could not be connected to."},
    Sentence{NSURLErrorNetworkConnectionLost, "The connection was lost or cut short."},
    Sentence{NSURLErrorHTTPTooManyRedirects, "There were too many redirects."},
    Sentence{NSURLErrorResourceUnavailable, "This computer has not got what the request takes."},
    Sentence{NSURLErrorNotConnectedToInternet, "There is no network."},
    Sentence{NSURLErrorUserAuthenticationRequired, "Authentication is required."},
    Sentence{NSURLErrorCannotDecodeContentData, "The reply's encoding could not be undone."},
    Sentence{NSURLErrorCannotParseResponse, "The reply could not be understood."},
    Sentence{NSURLErrorRequestBodyStreamExhausted, "The request's body ended early."},
    Sentence{NSURLErrorFileDoesNotExist, "The file does not exist."},
    Sentence{NSURLErrorFileIsDirectory, "The file is a folder."},
    Sentence{NSURLErrorNoPermissionsToReadFile, "The file may not be read."},
    Sentence{NSURLErrorSecureConnectionFailed, "A secure connection could not be made."},
    Sentence{NSURLErrorServerCertificateUntrusted, "The server's certificate is not trusted."},
    Sentence{NSURLErrorClientCertificateRejected, "The client's certificate was not accepted."},
    Sentence{NSURLErrorCannotCreateFile, "A file could not be created."},
    Sentence{NSURLErrorCannotOpenFile, "The file could not be opened."},
    Sentence{NSURLErrorCannotWriteToFile, "The file could not be written."},
};

}  // namespace

Error URLError(std::int64_t code, const std::string& failingURL, const std::string& detail) {
  const auto* const found = std::find_if(kSentences.begin(), kSentences.end(), [code](const Sentence& row) { return row.code == code; });
  std::string text = found == kSentences.end() ? "The operation could not be completed." : found->text;
  if (!detail.empty()) text += " (" + detail + ")";
  return {NSURLErrorDomain, code, std::move(text), failingURL};
}

}  // namespace platform
