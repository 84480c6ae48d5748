// What people write for a value: "90%", "10s", "64KiB", "0x1f", "on", "drop", "cpu+memory".
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/meaning/meaning.h"

namespace host::describe {

// Says what was found and what was expected.
class QuantityError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// The number that a text states for a member of a scalar kind, in the member's own unit. A bare number is in that unit;
// another unit of the same quantity is converted, when that goes without a rest. Throws QuantityError.
uint64_t ParseQuantity(const meaning::Value &value, std::string_view text);

// What ParseQuantity takes: "a share, such as 90% or 900", "on or off", "pass, drop or limit".
std::string QuantityExpected(const meaning::Value &value);

// A decimal number, or a hexadecimal one behind 0x.
std::optional<uint64_t> ParseWhole(std::string_view text);

// "sleeping" for 'S'; empty for a letter that is no state of a task.
std::string_view StateWord(uint64_t letter);

} // namespace host::describe
