#pragma once

#include <chrono>

namespace platform {

/// For how long the store waits for others.
struct PreferencesLimits {
  /// A writer for the domain's lock, and for other threads of its process that write the same domain through the same object.
  std::chrono::milliseconds lock{10000};
  /// After so much of it the log names the process that holds it.
  std::chrono::milliseconds lockSaid{1000};
  /// A damaged file that was changed more recently may be one that somebody is writing, and is not set aside.
  std::chrono::milliseconds settled{1000};
  /// For how long such a file is read again by who has no older values.
  std::chrono::milliseconds readAgain{300};
};

/// Those in force, and others for tests. Any thread.
PreferencesLimits preferencesLimits();
void setPreferencesLimits(const PreferencesLimits& limits);

}  // namespace platform
