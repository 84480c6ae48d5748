// Time settings that reach the daemon from clients and from the master.
#pragma once

#include "host/daemon/state.h"
#include "types/time.h"

namespace tarnd {

// Throws EINVAL and says why for a zone that makes no sense.
Timezone CheckedTimezone(const Tarn_sys_diag_Timezone &wanted);

// Keeps a checked zone; `source` is who wants it.
void TakeTimezone(const Timezone &timezone, const char *source);

} // namespace tarnd
