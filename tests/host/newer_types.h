/* The records of the method that only a newer daemon has: one member of each kind of slot. */
#ifndef TARN_TESTS_NEWER_TYPES_H
#define TARN_TESTS_NEWER_TYPES_H

#include "tarn_sysdiag/types/table.h"
#include "tarn_sysdiag/types/time.h"

typedef struct Tarn_sys_diag_FanInput {
    uint32_t uiFan;
    uint16_t usFrom;
    uint8_t ucOrder;
    char acRoom[16];
} Tarn_sys_diag_FanInput;
VELTO_TABLE(FanInput, uiFan, usFrom, ucOrder, acRoom)

typedef struct Tarn_sys_diag_Fan {
    char acName[16];
    uint64_t ullTime;
    uint8_t ucState;
} Tarn_sys_diag_Fan;
VELTO_TABLE(Fan, acName, ullTime, ucState)

typedef struct Tarn_sys_diag_FanInfo {
    uint32_t uiFanNum;
    Tarn_sys_diag_Fan *pstFan; /* owned */
    Tarn_sys_diag_Fan astFirst[2];
    Tarn_sys_diag_Systime stSince;
    uint64_t aullTurns[3];
    uint32_t uiStepNum;
    uint32_t *puiStep; /* owned */
    uint32_t uiImageNum;
    uint8_t *pucImage; /* owned */
    char *pcNote;      /* owned */
    uint16_t usShare;
} Tarn_sys_diag_FanInfo;
VELTO_TABLE(FanInfo, VELTO_VECTOR(uiFanNum, pstFan), astFirst, stSince, aullTurns, VELTO_VECTOR(uiStepNum, puiStep),
            VELTO_VECTOR(uiImageNum, pucImage), pcNote, usShare)

#endif
