#pragma once

#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// The one that the kernel is asked for last where a stream is made with this source, so the one whose refusal is to be explained when
/// there is none: "fanotify" or "inotify".
constexpr const char* lastSource(FSEventStreamSource chosen) { return chosen == FSEventStreamSource::Fanotify ? "fanotify" : "inotify"; }

}  // namespace platform::fsevents
