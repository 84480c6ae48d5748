#define VELTO_ON_TABLE(type)
#include "server/frame.h"

typedef struct Tarn_sys_diag_Sample {
    char acText[300];
    char *pcText;
} Tarn_sys_diag_Sample;
VELTO_TABLE(Sample, acText, pcText)

constexpr auto kShape = server::ShapeOf<Tarn_sys_diag_Sample, Tarn_sys_diag_Sample>();
