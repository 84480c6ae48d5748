#include "host/meaning/master.h"

#define SERVICE "TarnSysdiagMaster"
#define METHOD_LIST "tarn_sysdiag/client/master_methods.h"
#include "host/meaning/define_service.h"

namespace host::meaning {

const Service kMaster{SERVICE,
                      "The master, which holds the configuration that the daemon starts with. A method that fails has "
                      "no reply: its call ends with an errno value as its status.",
                      kMethods};

} // namespace host::meaning
