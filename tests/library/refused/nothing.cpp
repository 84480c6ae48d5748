// The control: what the other files here change is accepted.
#include "tests/library/refused/record.h"

VELTO_TABLE(Sample, uiFirst, VELTO_VECTOR(uiCount, puiWord), ucLast)
