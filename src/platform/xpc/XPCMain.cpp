#include "platform/xpc/XPCMain.h"

#include "platform/xpc/ServiceProcess.h"

namespace platform {

void xpc_main(void (*function)(const std::shared_ptr<xpc::Connection>& connection)) { xpc::ServiceProcess::serve(function); }

}  // namespace platform
