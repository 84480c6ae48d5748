// An interface as data that travels: what a server says of its services to whoever doesn't know them, and an interface
// made of what a server said.
#pragma once

#include <deque>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "host/describe/types.h"
#include "host/meaning/meaning.h"

namespace host::describe {

// A JSON object:
//   services  name, sentence and methods, each with name, index, group, long, sentence, example, and the numbers of the
//             records that are its request and response (null: no reply)
//   records   a type's name, and its members as a method means them: wire, name, kind, sentence, and as far as they say
//             something least, most, choices, open, zero, standsFor, notAbove, notBelow, matters, mattersAt; inside:
//             for each slot, the number of the record in it, or null
//   types     name, hash and slots: member, count, kind, width, length, type
std::string Reflect(std::span<const meaning::Service *const> services);

class ReflectionError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// The interface in such an object. Its types have a native layout of their own, for Record, Encode and Decode of this
// program; all that it gives out lives as long as it.
class Interface {
public:
    // Throws ReflectionError for what is no such object.
    explicit Interface(std::string_view reflection);
    Interface(const Interface &) = delete;
    Interface &operator=(const Interface &) = delete;
    ~Interface();

    const std::vector<Method> &Methods() const;
    const Method *FindMethod(std::string_view name) const; // by name or Service.Name; null when there is none

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace host::describe
