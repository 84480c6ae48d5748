// The service TarnSysdiagAgent, which the agent serves.
#pragma once

#include "host/agent/commands.h"
#include "platform/rpc.h"

namespace agent {

// Set before the service is served.
void ServeCommandsOf(Runner *runner);

extern const IdlModuleSpec kServiceSpec;

} // namespace agent
