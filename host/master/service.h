// The service TarnSysdiagMaster, which the master serves.
#pragma once

#include "host/runtime/client.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace master {

extern const IdlModuleSpec &kServiceSpec;

// Tells the daemon that the master is there, or has something new: it fetches its configuration then.
void GreetDaemon(host::Client &client);

} // namespace master
