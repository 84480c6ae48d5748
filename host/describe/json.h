// JSON for records of any type.
//
//   scalar                  number, exact to 64 bits
//   string                  text; null for none
//   bytes[N], byte vector   text, or {"hex": "00ff"} when the bytes are no text
//   u64[N], vector of u32   array of numbers
//   table                   object
//   run, vector of tables   array of objects
//
// A record becomes an object with a field for each slot, under the name of its member; a vector's count is the length
// of its array. The other way, a field that is not given is zero or absent, and so is a vector that is null; a vector's
// count may be given and must then agree; text in bytes[N] is filled up with zeros, hex and arrays of fixed length must
// be whole.
#pragma once

#include <nlohmann/json.hpp>

#include "host/describe/record.h"

extern template class nlohmann::basic_json<nlohmann::ordered_map>; // which is compiled once, in json.cpp

namespace host::describe {

using Json = nlohmann::ordered_json;

// Says where (stDst.stDstStart.ucMonth), what was found and what was expected.
class JsonError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// Parses text; a key that stands twice in an object is an error. Throws JsonError.
Json ParseJson(std::string_view text);

// Throws JsonError.
Record FromJson(const Type &type, const Json &json);

Json ToJson(const Record &record);

// Nothing unless the text is an even number of hex digits.
std::optional<std::vector<uint8_t>> FromHex(std::string_view text);

} // namespace host::describe
