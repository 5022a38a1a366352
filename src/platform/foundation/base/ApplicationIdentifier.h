#pragma once

#include <string>

namespace platform {

/// The name under which this process keeps its own preferences (its application domain) and by which its log lines name it, such as
/// "Ostrabyte.FileWatcherXpcService". Set once by `main`, before anything reads preferences; the program's file name until then. Any
/// thread.
void setApplicationIdentifier(std::string identifier);
std::string applicationIdentifier();

}  // namespace platform
