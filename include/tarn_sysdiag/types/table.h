/* How a message type is stated: one plain C record and one line that lists its members in slot order. */
#ifndef TARN_TYPES_TABLE_H
#define TARN_TYPES_TABLE_H

#include <stdint.h>

/*
 * A 64-bit member. It is 8-byte aligned on every target; i386 would otherwise align it to 4 and its records would
 * differ from those of the ARM devices.
 */
#define TARN_U64 __attribute__((aligned(8))) uint64_t

/*
 * A record without members. ISO C has none, so C takes the compiler's extension: the record's size is 0 there and 1
 * in C++. Interfaces that pass a size pass 0 in both.
 */
#define TARN_EMPTY_RECORD(type) __extension__ typedef struct Tarn_sys_diag_##type {} Tarn_sys_diag_##type;

/*
 * VELTO_TABLE(Type, member...) lists the members of Tarn_sys_diag_<Type> in slot order; a vector, which takes two
 * members and one slot, is VELTO_VECTOR(count, pointer). The wire kind follows from the member's C type:
 *
 *   uint8_t, uint16_t, uint32_t, uint64_t   scalar
 *   char *                                  string
 *   char[N], uint8_t[N]                     fixed array of N bytes
 *   uint64_t[N]                             fixed array of N 64-bit elements
 *   record                                  nested table
 *   record[N]                               fixed run of N tables
 *   uint32_t and uint8_t *                  vector of bytes
 *   uint32_t and uint32_t *                 vector of 32-bit scalars
 *   uint32_t and record *                   vector of tables
 *
 * VELTO_RELEASES_NULL(Type) says that the type's release hands its pointer on without testing it for null.
 *
 * For C, and for C++ that wants only the records, the line says nothing. After velto/describe.h it describes the type
 * to the compiler, which derives the codecs from it and refuses a list that does not match the record.
 */
#ifndef VELTO_DESCRIBE
#define VELTO_TABLE(...)
#define VELTO_VECTOR(count, pointer)
#define VELTO_RELEASES_NULL(type)
#endif

#endif
