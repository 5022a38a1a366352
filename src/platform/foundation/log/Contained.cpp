#include "platform/foundation/log/Contained.h"

#include <exception>
#include <string>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"

namespace platform {

bool runContained(std::string_view where, const std::function<void()>& block) {
  const auto say = [where](const std::string& what) { NSLog(std::string(where) + ": " + what); };
  try {
    block();
    return true;
  } catch (const Exception& exception) {
    say(exception.name() + ": " + exception.reason());
  } catch (const std::exception& exception) {
    say(exception.what());
  } catch (...) {
    say("of an unknown type");
  }
  return false;
}

}  // namespace platform
