// The shapes of all types, once for the library's units.
#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, )

#include "velto/shape.h"

#include "types/agent.h"
#include "types/master.h"
#include "types/tarnd.h"
#include "types/tarnd_agent.h"
