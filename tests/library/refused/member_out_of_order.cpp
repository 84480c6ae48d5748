#include "tests/library/refused/record.h"

VELTO_TABLE(Sample, VELTO_VECTOR(uiCount, puiWord), uiFirst, ucLast)
