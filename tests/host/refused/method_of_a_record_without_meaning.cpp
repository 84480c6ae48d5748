#include "meaning.h"

namespace host::meaning {

METHOD(TakeSample, Group::kReading, "Takes a sample.", "first=1")

} // namespace host::meaning

DEFINE_MEANING("TarnSysdiagTarnd", TakeSample, Tarn_sys_diag_Sample, host::meaning::NoRecord)
