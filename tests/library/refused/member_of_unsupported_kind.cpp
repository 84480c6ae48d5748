#include "velto/describe.h"

typedef struct Tarn_sys_diag_Sample {
    float fValue;
} Tarn_sys_diag_Sample;
VELTO_TABLE(Sample, fValue)
