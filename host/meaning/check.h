// Whether a request is within what its members accept.
#pragma once

#include <string>
#include <system_error>
#include <vector>

#include "host/meaning/meaning.h"

namespace host::meaning {

// Throws the error of a bad value, EINVAL: which member, by both names, its value with its unit, and what was expected.
void Check(const Record &meaning, const void *record);

// The same error, for what a method refuses by rules that depend on more than its request. The member is stated by
// either of its names: BadMember(host::methods::X, "begins-at", beginsAt, "1 to 2000").
std::system_error BadMember(const Method &method, std::string_view member, uint64_t found, const std::string &expected);
std::system_error BadMember(const Method &method, std::string_view member, std::string_view found,
                            const std::string &expected);

// The member of a reply in which a failure travels: its errno value.
bool HasResult(const Record &meaning);
uint32_t &ResultIn(const Record &meaning, void *record);

// The process that a record names; null where it has no member for one.
const uint32_t *ProcessIn(const Record &meaning, const void *record);

// What a member accepts and what its empty value means, for a list of members: "0 to 1000", "0: detect none", "at most
// begins-at", "while on is on". Choices are left to who lists them.
std::vector<std::string> Conditions(const Record &meaning, const Member &member);

// "0 to 1000", "pass (1), drop (2) or limit (3)", "0 (all) or 1 to 64"; empty where any value is accepted.
std::string ExpectedText(const Value &value);

} // namespace host::meaning
