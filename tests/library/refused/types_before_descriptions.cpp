#include "types/common.h"

#include "velto/describe.h"
