#include "velto/bounds.h"

size_t SizeOfElements(velto::Count count) {
    return count * sizeof(uint32_t);
}
