// The units of numbers, in signs and in words.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/meaning/meaning.h"

namespace host::meaning {

// "‰", "KiB", "ms"; empty for a number without unit.
std::string_view SignOf(Kind kind);

// "permille", "process id", "letter of a state": what the kind is, for a list of members.
std::string_view NameOf(Kind kind);

// The kind of that name.
std::optional<Kind> KindNamed(std::string_view name);

// A number as people write one of its kind, with the sign of its unit: "1900 ‰", "0x7f00", "-60".
std::string WithSign(uint64_t value, Kind kind);

// The names of the choices in a sum of them: "cpu+memory".
std::string NamesInSum(uint32_t sum, std::span<const Choice> choices);

} // namespace host::meaning
