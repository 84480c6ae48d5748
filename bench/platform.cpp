// What the codecs import: the platform's bounds-checked copies, doing only what they must.
#include "tarn_sysdiag/platform/securec.h"

#include <cstring>

int memcpy_s(void *dest, size_t destSize, const void *source, size_t count) {
    if (count > destSize) {
        return 34;
    }
    memcpy(dest, source, count);
    return 0;
}

int memset_s(void *dest, size_t destSize, int value, size_t count) {
    if (count > destSize) {
        return 34;
    }
    memset(dest, value, count);
    return 0;
}
