#include "tests/library/refused/record.h"

VELTO_TABLE(Sample, uiFirst, VELTO_VECTOR(uiCount, puiWord))
