// A record for what the compiler must refuse of what is said of it.
#pragma once

#include "host/meaning/list.h"

struct Tarn_sys_diag_Sample {
    uint32_t uiValue1;
    uint8_t ucValue2;
};
VELTO_TABLE(Sample, uiValue1, ucValue2)

namespace host::methods {

extern const meaning::MethodOf<Tarn_sys_diag_Sample, meaning::NoRecord> TakeSample;

} // namespace host::methods
