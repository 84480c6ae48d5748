#include "host/meaning/agent.h"

#define SERVICE "TarnSysdiagAgent"
#define METHOD_LIST "tarn_sysdiag/client/agent_methods.h"
#include "host/meaning/define_service.h"

namespace host::meaning {

const Service kAgent{SERVICE,
                     "The diagnosis agent inside an application. A method whose reply has a result fails with that and "
                     "nothing else; the call of any other that fails ends with the errno value as its status.",
                     kMethods};

} // namespace host::meaning
