#include "host/meaning/tarnd_agent.h"

#define SERVICE "TarnSysdiagTarndAgent"
#define METHOD_LIST "tarn_sysdiag/server/tarnd_agent_methods.h"
#include "host/meaning/define_service.h"

namespace host::meaning {

const Service kTarndAgent{SERVICE, "The daemon's service for agents, with which they register and subscribe.",
                          kMethods};

} // namespace host::meaning
