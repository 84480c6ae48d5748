// JSON in the names of the meanings, for programs that don't want to know the wire: a translation of the JSON of
// host/describe/json.h, and back.
//
//   name            cpu_time_us: the name with "_" for "-", and the unit
//   number          times in us (calendar's hours and minutes as they are), sizes in bytes, shares in permille or
//   percent;
//                   beyond 2^53 as text
//   choice, letter  a word, "drop", "sleeping"; a number that has none stays a number
//   flags           an array of words
//   switch          true or false
//   errno value     "ENOENT", 0 as "ok"
//   text            a string; a byte that is no UTF-8 as \xNN
//   time            RFC 3339 with its offset; null for none
#pragma once

#include "host/describe/json.h"
#include "host/meaning/meaning.h"

namespace host::describe {

// "cpu_time_us".
std::string KeyOf(const meaning::Member &member);

Json ToNamed(const Json &wire, const meaning::Record &meaning);

// A request in either form, or with both in it: a member under its wire name as host/describe/json.h has it, or under
// its key or its name, as ToNamed writes it or as text that people write ("90%", "on"). Throws JsonError.
Json FromNamed(const Json &named, const meaning::Record &meaning);

// A member by its key, its name or its wire name; null when there is none.
const meaning::Member *FindMember(const meaning::Record &meaning, std::string_view name);

// The wire's JSON of a value that a person wrote for a member of that record. Throws JsonError.
Json ParseValue(const meaning::Record &meaning, const meaning::Member &member, std::string_view text);

} // namespace host::describe
