// The shapes of all types, once for the library's units.
#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, )

#include "velto/shape.h"

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"
