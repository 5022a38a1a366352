#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/base/Error.h"

namespace platform {

/// The domain of every error that a URL session or connection hands out.
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

inline constexpr std::int64_t NSURLErrorUnknown = -1;
inline constexpr std::int64_t NSURLErrorCancelled = -999;
inline constexpr std::int64_t NSURLErrorBadURL = -1000;
inline constexpr std::int64_t NSURLErrorTimedOut = -1001;
inline constexpr std::int64_t NSURLErrorUnsupportedURL = -1002;
inline constexpr std::int64_t NSURLErrorCannotFindHost = -1003;
inline constexpr std::int64_t NSURLErrorCannotConnectToHost = -1004;
inline constexpr std::int64_t NSURLErrorNetworkConnectionLost = -1005;
inline constexpr std::int64_t NSURLErrorHTTPTooManyRedirects = -1007;
inline constexpr std::int64_t NSURLErrorResourceUnavailable = -1008;
inline constexpr std::int64_t NSURLErrorNotConnectedToInternet = -1009;
inline constexpr std::int64_t NSURLErrorUserAuthenticationRequired = -1013;
inline constexpr std::int64_t NSURLErrorCannotDecodeContentData = -1016;
inline constexpr std::int64_t NSURLErrorCannotParseResponse = -1017;
inline constexpr std::int64_t NSURLErrorRequestBodyStreamExhausted = -1021;
inline constexpr std::int64_t NSURLErrorFileDoesNotExist = -1100;
inline constexpr std::int64_t NSURLErrorFileIsDirectory = -1101;
inline constexpr std::int64_t NSURLErrorNoPermissionsToReadFile = -1102;
inline constexpr std::int64_t NSURLErrorSecureConnectionFailed = -1200;
inline constexpr std::int64_t NSURLErrorServerCertificateUntrusted = -1202;
inline constexpr std::int64_t NSURLErrorClientCertificateRejected = -1205;
inline constexpr std::int64_t NSURLErrorCannotCreateFile = -3000;
inline constexpr std::int64_t NSURLErrorCannotOpenFile = -3001;
inline constexpr std::int64_t NSURLErrorCannotWriteToFile = -3003;

/// An error of that domain with the platform's sentence for `code`, followed by ` (detail)` when there is one.
Error URLError(std::int64_t code, const std::string& failingURL = {}, const std::string& detail = {});

}  // namespace platform
