// The server unit: codecs, wrappers and registration tables of the daemon's two services.
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

#define TARN_SERVICE TarnSysdiagTarnd
#define TARN_METHODS "tarn_sysdiag/server/tarnd_methods.h"
#include "server/tables.inc"

#define TARN_SERVICE TarnSysdiagTarndAgent
#define TARN_METHODS "tarn_sysdiag/server/tarnd_agent_methods.h"
#include "server/tables.inc"
