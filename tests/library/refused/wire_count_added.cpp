#include "velto/bounds.h"

uint32_t SizeOfText(velto::Count length) {
    return length + 1;
}
