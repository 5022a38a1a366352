#pragma once

namespace kestrine {

/// Hosts the service on 10.7, where there is no listener. Does not return unless it fails; then the result is the process's exit status.
int runLegacyService();

}  // namespace kestrine
