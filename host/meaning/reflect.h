// A service's list as data that travels: what a server says of its services to whoever doesn't know them.
// host/describe/reflection.h reads it.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "host/meaning/meaning.h"

namespace host::meaning {

// The kinds of slots, in the order of velto::Kind.
inline constexpr std::string_view kSlotKinds[] = {"unsupported", "scalar", "string",      "bytes",    "array64",
                                                  "table",       "run",    "byte-vector", "vector32", "table-vector"};

// A JSON object:
//   services  name, sentence and methods, each with name, index, group, long, sentence, example, and the numbers of the
//             records that are its request and response (null: no reply)
//   records   a type's name, and its members as a method means them: wire, name, kind, sentence, and as far as they say
//             something least, most, choices, open, zero, standsFor, notAbove, notBelow, matters, mattersAt; inside:
//             for each slot, the number of the record in it, or null
//   types     name, hash and slots: member, count (of a vector, its count's member), kind, width (of a scalar, or of an
//             element that is no table), length (of a fixed array) and type (of what is in a table)
// A record and a type stand behind those that are inside of them.
std::string Reflect(std::span<const Service *const> services);

// A member as such a record has it.
std::string MeaningJson(const Member &member);

} // namespace host::meaning
