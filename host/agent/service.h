// The service TarnSysdiagAgent, which the agent serves.
#pragma once

#include "platform/rpc.h"

namespace agent {

extern const IdlModuleSpec &kServiceSpec;

} // namespace agent
