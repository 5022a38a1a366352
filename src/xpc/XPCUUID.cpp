#include "xpc/XPCUUID.h"

#include <fmt/format.h>

namespace kestrine {

XPCUUID XPCUUID::uuid() { return XPCUUID(platform::UUID::random()); }

XPCUUID XPCUUID::uuidWithXPCObject(const platform::xpc::Value& object) { return XPCUUID(platform::UUID(object.uuidValue())); }

platform::xpc::Value XPCUUID::newXPCObject() const { return platform::xpc::Value::uuid(uuidRef_.bytes()); }

std::string XPCUUID::string() const { return uuidRef_.string(); }

std::string XPCUUID::description() const { return fmt::format("<XPCUUID {}>", string()); }

bool XPCUUID::isEqual(const platform::Object& other) const {
  if (other.kind() == platform::Object::Kind::UUID) return isEqual(XPCUUID(other.uuidValue()));
  return description() == other.description();
}

}  // namespace kestrine
