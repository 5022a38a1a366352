#include "platform/foundation/log/Log.h"

#include <optional>

#include "platform/foundation/log/LogWriter.h"

namespace platform {

namespace {

/// What a service's end may take in all is 2 s for its handlers, and this.
constexpr int kPatienceAtEndInSeconds = 1;

}  // namespace

void NSLog(std::string_view text) { LogWriter::shared().log(text); }
void setLogDestination(const LogDestination& destination) { LogWriter::shared().setDestination(destination); }
void flushLog() { LogWriter::shared().flush(std::nullopt); }
void flushLogAtEnd() { LogWriter::shared().flush(kPatienceAtEndInSeconds); }

}  // namespace platform
