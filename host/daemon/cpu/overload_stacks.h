// What the busiest threads of an overload were doing.
#pragma once

#include "host/daemon/cpu/cpu_overload.h"
#include "host/stacks/helpers.h"
#include "host/stacks/snapshot.h"

namespace tarnd {

// Adds the names and stacks of the threads; one that can't be read is left without.
void ReadOverloadStacks(host::stacks::Tracer &tracer, host::stacks::Helpers &helpers, Overload &overload);

} // namespace tarnd
