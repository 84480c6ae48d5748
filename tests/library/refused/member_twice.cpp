#include "tests/library/refused/record.h"

VELTO_TABLE(Sample, uiFirst, uiFirst, VELTO_VECTOR(uiCount, puiWord), ucLast)
