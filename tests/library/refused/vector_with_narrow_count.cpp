#include "velto/describe.h"

typedef struct Tarn_sys_diag_Sample {
    uint16_t usCount;
    uint8_t *pucByte;
} Tarn_sys_diag_Sample;
VELTO_TABLE(Sample, VELTO_VECTOR(usCount, pucByte))
