// Whether a request is within what its members accept.
#pragma once

#include <string>

#include "host/meaning/meaning.h"

namespace host::meaning {

// Throws the error of a bad value, EINVAL: which member, by both names, its value with its unit, and what was expected.
void Check(const Record &meaning, const void *record);

// The member of a reply in which a failure travels: its errno value.
uint32_t &ResultIn(const Record &meaning, void *record);

// "0 to 1000", "pass (1), drop (2) or limit (3)", "0 (all) or 1 to 64"; empty where any value is accepted.
std::string ExpectedText(const Value &value);

} // namespace host::meaning
