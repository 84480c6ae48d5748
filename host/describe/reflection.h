// An interface made of what a server said of itself (host/meaning/reflect.h), for whoever doesn't know it.
#pragma once

#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "host/describe/types.h"

namespace host::describe {

class ReflectionError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// Its types have a native layout of their own, for Record, Encode and Decode of this program; all that it gives out
// lives as long as it. What a newer server says beyond what is known here is passed over.
class Interface {
public:
    // The text may be anybody's. Throws ReflectionError for what is no description, or one of types that are larger or
    // deeper than records are.
    explicit Interface(std::string_view reflection);
    Interface(const Interface &) = delete;
    Interface &operator=(const Interface &) = delete;
    ~Interface();

    const std::vector<Method> &Methods() const;
    const Method *FindMethod(std::string_view name) const; // by name or Service.Name; null when there is none

private:
    class Reader;
    struct Parts;
    const std::unique_ptr<Parts> parts_;
};

} // namespace host::describe
