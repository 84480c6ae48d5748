#include "tarn_sysdiag/server/service.h"
#include "tarn_sysdiag/types/tarnd.h"

TARN_SERVED(PidIsOffline, NoSuchInput, Result)
