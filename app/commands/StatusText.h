#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "app/client/ServiceReport.h"
#include "app/client/StatusFlag.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// Everything that `kestrine status` tells.
struct ServiceStatus {
  /// 0 when the service does not run; below 0 when it runs and its number is not known yet.
  pid_t process = 0;
  /// Nullopt also when it runs and does not answer.
  std::optional<ServiceReport> report;
  FlagReading flag;
  /// As it is stored, which is the text of a URL.
  std::optional<std::string> base;
};

/// Several lines, for people.
std::string statusText(const ServiceStatus& status);
/// The same and all that the service told, as a dictionary that JSON can hold: "running", "pid", "startedAt", "flag", "flagRaised", "base"
/// (as it is stored), "baseFolder" (the folder that this names), and the sections of the service ("process", "watches", "streams" and what
/// else it has).
platform::Object statusObject(const ServiceStatus& status);

}  // namespace kestrine
