/* The two message types that every service shares. */
#ifndef TARN_TYPES_COMMON_H
#define TARN_TYPES_COMMON_H

#include "tarn_sysdiag/types/table.h"

/* A message without content: the request of every method that takes no input. */
TARN_EMPTY_RECORD(None)
VELTO_TABLE(None)

/* The reply of a method that does something and has no data to return. */
typedef struct Tarn_sys_diag_Result {
    uint32_t uiResult; /* status of the side that answered; 0 is success */
} Tarn_sys_diag_Result;
VELTO_TABLE(Result, uiResult)

#endif
