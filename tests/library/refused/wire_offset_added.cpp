#include "velto/bounds.h"

const uint8_t *FieldOf(const velto::OpenedTable &table, velto::Offset offset) {
    return table.start.at + offset;
}
