// What a record of C holds, by what its members mean.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/meaning/meaning.h"

namespace host::meaning {

// The number in a member that is one.
uint64_t NumberOf(const Record &meaning, size_t member, const void *record);

// "begins-at=900 ‰ must-last=10 s": its numbers and texts; what is inside of others is left out.
std::string WordsOf(const Record &meaning, const void *record);

} // namespace host::meaning
