// JSON in the names of the meanings, for programs that don't want to know the wire: a translation of the JSON of
// host/describe/json.h, and back.
//
//   name            cpu_time_us: the name with "_" for "-", and the unit
//   number          times in us (ns as they are, calendar's hours and minutes as they are), sizes in bytes, shares in
//                   permille or percent; beyond 2^53 as text; beyond 64 bits as text with its own unit
//   choice, letter  a word, "drop", "sleeping"; a number that has none stays a number
//   flags           an array of words
//   switch          true or false
//   errno value     "ENOENT", 0 as "ok"
//   text            a string; a byte that is no UTF-8 as \xNN
//   time            RFC 3339 with its offset; null for none; what is no date stays as it is
//   binary          text, or {"hex": "00ff"}
//
// Members that nobody looks at are left out.
#pragma once

#include "host/describe/json.h"
#include "host/meaning/meaning.h"

namespace host::describe {

// "cpu_time_us".
std::string KeyOf(const meaning::Member &member);

Json ToNamed(const Json &wire, const meaning::Record &meaning);

// A request in either form, or with both in it: a member under its wire name as host/describe/json.h has it, or under
// its key or its name, as ToNamed writes it or as text that people write ("90%", "on"). A bare number under its name is
// in the member's own unit. Throws JsonError.
Json FromNamed(const Json &named, const meaning::Record &meaning);

// A member by its key, its name or its wire name; null when there is none.
const meaning::Member *FindMember(const meaning::Record &meaning, std::string_view name);

// The record in a member of tables, as the method means it; else null.
const meaning::Record *InsideOf(const meaning::Record &meaning, const meaning::Member &member);

// A member of a record somewhere in a request, which a value is for.
struct Place {
    const meaning::Record &record;
    const meaning::Member &member;
    std::string path; // of the record, "zone."; empty for the request itself

    std::string Name() const; // "zone.offset (uiTimezoneOffset)"
};

// The member of that name. Throws JsonError, which suggests the closest.
Place PlaceOf(const meaning::Record &record, std::string_view name, const std::string &path);

// The wire's JSON of a value that a person wrote. Throws JsonError.
Json FromText(const Place &place, std::string_view text);

// The wire's JSON of a text or binary member's bytes. Throws JsonError.
Json FromBytes(const Place &place, std::string_view bytes);

} // namespace host::describe
