#include "meaning.h"

namespace host::meaning {

METHOD(TakeSample, Group::kReading, "Takes a sample.", "first=1")
RECORD(Sample, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count(), "The second."})

} // namespace host::meaning

DEFINE_MEANING("TarnSysdiagTarnd", TakeSample, Tarn_sys_diag_Sample, host::meaning::NoRecord)
