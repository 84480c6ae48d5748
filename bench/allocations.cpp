// Counts the process's allocations: malloc and its relatives stand before the C library's, which they call.
#include "bench/allocations.h"

#include <cstdlib>

static size_t allocationNum;

size_t bench::AllocationNum() {
    return allocationNum;
}

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) {
    ++allocationNum;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    ++allocationNum;
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
    ++allocationNum;
    return __libc_realloc(block, size);
}
}
