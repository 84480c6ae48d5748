/* A record to describe rightly or wrongly. */
#include "velto/describe.h"

typedef struct Tarn_sys_diag_Sample {
    uint32_t uiFirst;
    uint32_t uiCount;
    uint32_t *puiWord;
    uint8_t ucLast;
} Tarn_sys_diag_Sample;
