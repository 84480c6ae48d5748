// The codecs of every type, in a unit of the tests' own.
#include "velto/registry.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"
#include "tarn_sysdiag/types/time.h"
#include "tests/codec/test_types.h"

#include "tests/codec/swapped_mode.h"

SwappedMode::SwappedMode() {
    Unit::binding.EnsureMemBound(); // which clears the flag
    Unit::binding.SetSwapped(true);
}

SwappedMode::~SwappedMode() {
    Unit::binding.SetSwapped(false);
}
