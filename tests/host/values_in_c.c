/* The values that programs in C are given: they compile, and are those of the lists. */
#include "tarn_sysdiag/values.h"

int main(void) {
    const int same = TARN_RULE_ACTION_DROP == 2 && TARN_MEMORY_UNIT_MALLOC == 0xFFFFFFFF &&
                     TARN_SYSTEM_HEALTH_ITEM_CPU_EVENT_TIME == 138 && TARN_MEMORY_DUMP_MOST_BYTES == 65536;
    return same ? 0 : 1;
}
