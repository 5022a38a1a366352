#include "app/client/StatusFlag.h"

#include "contract/ServiceName.h"
#include "contract/SharedPreferences.h"
#include "platform/foundation/preferences/UserDefaults.h"

namespace kestrine {

namespace {

using platform::Object;

bool isRaised(const Object& value) { return value.isString() && value.stringValue() == kFlagRaised; }

}  // namespace

FlagReading readFlag() {
  FlagReading reading;
  reading.value = platform::UserDefaults(kServiceName).objectForKey(kFlagKey);
  reading.raised = isRaised(reading.value);
  return reading;
}

FlagReading takeFlag() {
  FlagReading reading;
  platform::UserDefaults defaults(kServiceName);
  const auto reset = [](const Object& value) { return isRaised(value) ? Object(kFlagReset) : Object(); };
  reading.value = defaults.exchange(kFlagKey, reset, &reading.resetFailed);
  reading.raised = isRaised(reading.value);
  return reading;
}

bool putFlagBack() {
  platform::UserDefaults defaults(kServiceName);
  defaults.setObject_forKey(kFlagRaised, kFlagKey);
  return defaults.synchronize();
}

}  // namespace kestrine
