// For a unit outside the library, in a program or library that does not link the library's own: as velto/codec.h, and
// with it the shapes of the types. Then TARN_UNIT() and the headers of types/ follow.
#pragma once

#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, inline) VELTO_CODECS(type)

#include "velto/codec.h"
