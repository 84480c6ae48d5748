#include "tarn_sysdiag/server/tarnd_methods.h"
