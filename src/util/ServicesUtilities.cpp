#include "util/ServicesUtilities.h"

#include <cmath>

#include "platform/foundation/SystemVersion.h"

namespace kestrine {

namespace {

// The AppKit version numbers with which two releases began.
constexpr double kAppKitVersionNumber10_7 = 1138.0;
constexpr double kAppKitVersionNumber10_10 = 1343.0;

}  // namespace

bool ServicesUtilities::is10_7() { return is10_7(platform::appKitVersionNumber(platform::systemVersion())); }

bool ServicesUtilities::isLessThan10_10() { return isLessThan10_10(platform::appKitVersionNumber(platform::systemVersion())); }

bool ServicesUtilities::is10_7(double appKitVersionNumber) { return std::floor(appKitVersionNumber) == kAppKitVersionNumber10_7; }

bool ServicesUtilities::isLessThan10_10(double appKitVersionNumber) {
  const double number = std::floor(appKitVersionNumber);
  return number >= kAppKitVersionNumber10_7 && number < kAppKitVersionNumber10_10;
}

}  // namespace kestrine
