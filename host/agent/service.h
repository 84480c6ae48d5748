// The service TarnSysdiagAgent, which the agent serves.
#pragma once

#include "tarn_sysdiag/platform/rpc.h"

namespace agent {

extern const IdlModuleSpec &kServiceSpec;

} // namespace agent
