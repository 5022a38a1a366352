#include "platform/foundation/log/Log.h"

#include <optional>

#include "platform/foundation/log/LogWriter.h"

namespace platform {

void NSLog(std::string_view text) { LogWriter::shared().log(text); }
void setLogDestination(const LogDestination& destination) { LogWriter::shared().setDestination(destination); }
void flushLog() { LogWriter::shared().flush(std::nullopt); }

}  // namespace platform
