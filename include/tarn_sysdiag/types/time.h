/*
 * Time settings. The master answers the daemon's time queries with these records, and clients set the daemon's clock
 * with them. All are held inline in the message that carries them; none owns memory. The library passes values through
 * unchecked: the coding of offsets, modes and flags is agreed between the daemon and its peers.
 */
#ifndef TARN_TYPES_TIME_H
#define TARN_TYPES_TIME_H

#include "tarn_sysdiag/types/table.h"

/* A time zone: its name and its offset. */
typedef struct Tarn_sys_diag_Timezone {
    char szTimezoneName[128]; /* a full array carries no terminating 0 */
    uint32_t uiTimezoneOffset;
} Tarn_sys_diag_Timezone;
VELTO_TABLE(Timezone, szTimezoneName, uiTimezoneOffset)

/* A calendar time. */
typedef struct Tarn_sys_diag_Systime {
    uint16_t usYear;
    uint8_t ucMonth;
    uint8_t ucDay;
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
    uint8_t ucWeek;
    uint32_t uiMillisecond; /* older peers do not send it, nor ucWeek: both are 0 then */
} Tarn_sys_diag_Systime;
VELTO_TABLE(Systime, usYear, ucMonth, ucDay, ucHour, ucMinute, ucSecond, ucWeek, uiMillisecond)

/* A time of day. */
typedef struct Tarn_sys_diag_Timehour {
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
} Tarn_sys_diag_Timehour;
VELTO_TABLE(Timehour, ucHour, ucMinute, ucSecond)

/* Start and end of daylight saving stated by week and weekday instead of by date. */
typedef struct Tarn_sys_diag_DstWeek {
    uint16_t usStartYear;
    uint8_t ucStartMonth;
    uint8_t ucStartWeek;
    uint8_t ucStartWeekday;
    uint8_t ucStartHour;
    uint16_t usEndYear;
    uint8_t ucEndMonth;
    uint8_t ucEndWeek;
    uint8_t ucEndWeekday;
    uint8_t ucEndHour;
} Tarn_sys_diag_DstWeek;
VELTO_TABLE(DstWeek, usStartYear, ucStartMonth, ucStartWeek, ucStartWeekday, ucStartHour, usEndYear, ucEndMonth,
            ucEndWeek, ucEndWeekday, ucEndHour)

/* A daylight-saving rule, stated by dates (stDstStart, stDstEnd) and by weeks (stDstWeek). */
typedef struct Tarn_sys_diag_Dst {
    char szDstName[128]; /* a full array carries no terminating 0 */
    Tarn_sys_diag_Systime stDstStart;
    uint32_t uiDstOffset;
    Tarn_sys_diag_Systime stDstEnd;
    uint8_t ucDstMode;
    Tarn_sys_diag_Timehour stDstAdjust;
    uint8_t ucDstFlag;
    Tarn_sys_diag_DstWeek stDstWeek;
} Tarn_sys_diag_Dst;
VELTO_TABLE(Dst, szDstName, stDstStart, uiDstOffset, stDstEnd, ucDstMode, stDstAdjust, ucDstFlag, stDstWeek)

#endif
