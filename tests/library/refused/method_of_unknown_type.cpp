#include "server/service.h"
#include "types/tarnd.h"

TARN_SERVED(PidIsOffline, NoSuchInput, Result)
