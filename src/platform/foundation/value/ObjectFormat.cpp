#include "platform/foundation/value/ObjectFormat.h"

namespace platform {

std::string formatObject(std::string_view format, std::initializer_list<Object> arguments) {
  std::string out;
  const Object* argument = arguments.begin();
  for (;;) {
    const std::size_t percent = format.find('%');
    out += format.substr(0, percent);
    if (percent == std::string_view::npos) return out;
    format.remove_prefix(percent);
    if (format.starts_with("%@")) {
      out += (argument == arguments.end() ? Object() : *argument++).description();
    } else {
      out += '%';
    }
    format.remove_prefix(format.starts_with("%@") || format.starts_with("%%") ? 2 : 1);
  }
}

}  // namespace platform
