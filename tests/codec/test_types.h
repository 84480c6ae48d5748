/* Message types of the tests only: each wire kind in a table small enough to read, and owners within owners. */
#ifndef TARN_TESTS_TEST_TYPES_H
#define TARN_TESTS_TEST_TYPES_H

#include "tarn_sysdiag/types/table.h"

typedef struct Tarn_sys_diag_TestScalars {
    uint8_t ucOne;
    uint16_t usTwo;
    uint32_t uiFour;
    TARN_U64 ullEight;
} Tarn_sys_diag_TestScalars;
VELTO_TABLE(TestScalars, ucOne, usTwo, uiFour, ullEight)

typedef struct Tarn_sys_diag_TestFiveWords {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint32_t uiValue5;
} Tarn_sys_diag_TestFiveWords;
VELTO_TABLE(TestFiveWords, uiValue1, uiValue2, uiValue3, uiValue4, uiValue5)

typedef struct Tarn_sys_diag_TestBytes {
    char acName[3];
    uint8_t ucValue;
} Tarn_sys_diag_TestBytes;
VELTO_TABLE(TestBytes, acName, ucValue)

typedef struct Tarn_sys_diag_TestArray64 {
    uint8_t ucValue;
    TARN_U64 aullValue[2];
} Tarn_sys_diag_TestArray64;
VELTO_TABLE(TestArray64, ucValue, aullValue)

typedef struct Tarn_sys_diag_TestPair {
    uint8_t ucValue;
    uint16_t usValue;
} Tarn_sys_diag_TestPair;
VELTO_TABLE(TestPair, ucValue, usValue)

typedef struct Tarn_sys_diag_TestRun {
    Tarn_sys_diag_TestPair astPair[2];
} Tarn_sys_diag_TestRun;
VELTO_TABLE(TestRun, astPair)

typedef struct Tarn_sys_diag_TestNested {
    uint32_t uiValue;
    Tarn_sys_diag_TestPair stPair;
} Tarn_sys_diag_TestNested;
VELTO_TABLE(TestNested, uiValue, stPair)

typedef struct Tarn_sys_diag_TestTables {
    uint32_t uiPairNum;
    Tarn_sys_diag_TestPair *pstPair;
} Tarn_sys_diag_TestTables;
VELTO_TABLE(TestTables, VELTO_VECTOR(uiPairNum, pstPair))

/* An owner of every kind of storage. */
typedef struct Tarn_sys_diag_TestOwner {
    char *pcText;
    uint32_t uiByteNum;
    uint8_t *pucByte;
    uint32_t uiWordNum;
    uint32_t *puiWord;
    uint32_t uiPairNum;
    Tarn_sys_diag_TestPair *pstPair;
} Tarn_sys_diag_TestOwner;
VELTO_TABLE(TestOwner, pcText, VELTO_VECTOR(uiByteNum, pucByte), VELTO_VECTOR(uiWordNum, puiWord),
            VELTO_VECTOR(uiPairNum, pstPair))

/* Owners in every place where a table can stand; the last slot lets a message fail behind all of them. */
typedef struct Tarn_sys_diag_TestOwners {
    Tarn_sys_diag_TestOwner stOwner;
    Tarn_sys_diag_TestOwner astOwner[2];
    uint32_t uiOwnerNum;
    Tarn_sys_diag_TestOwner *pstOwner;
    uint32_t uiTablesNum;
    Tarn_sys_diag_TestTables *pstTables;
    char *pcText;
    uint32_t uiLast;
} Tarn_sys_diag_TestOwners;
VELTO_TABLE(TestOwners, stOwner, astOwner, VELTO_VECTOR(uiOwnerNum, pstOwner), VELTO_VECTOR(uiTablesNum, pstTables),
            pcText, uiLast)

/* Such a text is left to be overwritten when a record is cleared; as elements the records are in new memory. */
typedef struct Tarn_sys_diag_TestLongOwner {
    char acText[4096];
    uint8_t ucValue;
    char *pcText;
} Tarn_sys_diag_TestLongOwner;
VELTO_TABLE(TestLongOwner, acText, ucValue, pcText)

typedef struct Tarn_sys_diag_TestLongPlain {
    char acText[4096];
    uint8_t ucValue;
    TARN_U64 aullValue[2];
} Tarn_sys_diag_TestLongPlain;
VELTO_TABLE(TestLongPlain, acText, ucValue, aullValue)

typedef struct Tarn_sys_diag_TestLongs {
    uint32_t uiOwnerNum;
    Tarn_sys_diag_TestLongOwner *pstOwner;
    uint32_t uiPlainNum;
    Tarn_sys_diag_TestLongPlain *pstPlain;
} Tarn_sys_diag_TestLongs;
VELTO_TABLE(TestLongs, VELTO_VECTOR(uiOwnerNum, pstOwner), VELTO_VECTOR(uiPlainNum, pstPlain))

#endif
