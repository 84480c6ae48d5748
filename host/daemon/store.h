// What the daemon keeps beyond a restart.
#pragma once

#include "host/store/store.h"

namespace tarnd {

// Opened by main on --state-dir before any subject loads from it; in memory only without one.
host::Store &TheStore();

} // namespace tarnd
