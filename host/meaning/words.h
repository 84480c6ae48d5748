// A record as words: "begins-at=900 ‰ must-last=10 s".
#pragma once

#include <string>

#include "host/meaning/meaning.h"

namespace host::meaning {

// Its numbers and texts; what is inside of others is left out.
std::string WordsOf(const Record &meaning, const void *record);

} // namespace host::meaning
