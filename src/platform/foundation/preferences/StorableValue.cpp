#include "platform/foundation/preferences/StorableValue.h"

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

Object storableValue(const Object& value, std::string_view key) {
  // Nearly all of them are texts.
  if (value.isString() && isPropertyListText(value.stringView())) return value;
  return propertyListValue(Dictionary{{std::string(key), value}}).objectForKey(key);
}

}  // namespace platform
