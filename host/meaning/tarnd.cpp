#include "host/meaning/tarnd.h"

#define SERVICE "TarnSysdiagTarnd"
#define METHOD_LIST "tarn_sysdiag/server/tarnd_methods.h"
#include "host/meaning/define_service.h"

namespace host::meaning {

const Service kTarnd{SERVICE,
                     "The diagnosis daemon of a device. A method whose reply has a result answers with it: 0, or an "
                     "errno value. The call of "
                     "any other that fails ends with the errno value as its status.",
                     kMethods};

} // namespace host::meaning
