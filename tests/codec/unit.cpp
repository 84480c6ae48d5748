// The codecs of every type, in a unit of the tests' own.
#include "velto/registry.h"

TARN_UNIT()

#include "tests/codec/test_types.h"
#include "types/agent.h"
#include "types/common.h"
#include "types/master.h"
#include "types/tarnd.h"
#include "types/tarnd_agent.h"
#include "types/time.h"

#include "tests/codec/swapped_mode.h"

SwappedMode::SwappedMode() {
    Unit::binding.EnsureMemBound(); // which clears the flag
    Unit::binding.SetSwapped(true);
}

SwappedMode::~SwappedMode() {
    Unit::binding.SetSwapped(false);
}
