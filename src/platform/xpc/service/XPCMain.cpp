#include "platform/xpc/service/XPCMain.h"

#include "platform/xpc/service/ServiceProcess.h"

namespace platform {

void xpc_main(void (*function)(const std::shared_ptr<xpc::Connection>& connection)) { xpc::ServiceProcess::serve(function); }

}  // namespace platform
