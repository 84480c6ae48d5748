#include "tarn_sysdiag/types/common.h"

#include "velto/describe.h"
