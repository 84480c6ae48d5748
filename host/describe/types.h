// The message types and the methods as data, found by name. All of it comes from the descriptions of types/ and from
// the lists of methods; nothing here knows a single type or method.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velto/describe.h"

namespace velto {
struct TypeShape;
}

namespace host::meaning {
struct Method;
struct Record;
struct Service;
} // namespace host::meaning

namespace host::describe {

using velto::Kind;

struct Type;

struct Slot {
    const char *name;  // of the member; of a vector, its pointer member's
    const char *count; // of a vector, its count member's; else null
    Kind kind;
    uint32_t offset;      // of the member, in bytes
    uint32_t countOffset; // of a vector's count
    uint32_t width;       // bytes of a scalar, or of an element that is not a table
    uint32_t length;      // declared, of fixed arrays and runs
    const Type *table;    // of tables, their type; else null

    uint32_t ElementSize() const; // native
};

// Places within a table in the fixed form, in bytes from its start.
struct FixedForm {
    std::vector<uint32_t> offsets; // of each slot
    uint32_t dataEnd;
    uint32_t vtable;
    uint32_t end; // of the vtable

    uint32_t ElementSize() const; // of an element of a run
    uint32_t Size() const;        // of a message
};

struct Type {
    const char *name; // without the prefix Tarn_sys_diag_
    uint32_t hash;
    uint32_t size; // native
    std::vector<Slot> slots;
    std::optional<FixedForm> fixed; // none for a type with a string or a vector
    const velto::TypeShape *shape;
};

inline uint32_t Slot::ElementSize() const {
    return table != nullptr ? table->size : width;
}

// Every type. Element types stand before those that hold them.
const std::vector<Type> &Types();

// By name, with or without the prefix Tarn_sys_diag_; null when there is none.
const Type *FindType(std::string_view name);

struct Method {
    const char *service;
    const char *name;
    uint32_t index; // of the interface, or the place in a remote service's list; from 1
    const Type *request;
    const Type *response; // null for a method without reply
    const meaning::Method *meaning;
};

// The methods of all four services, in the order of their lists.
const std::vector<Method> &Methods();

// By name, or by Service.Name; null when there is none.
const Method *FindMethod(std::string_view name);
const Method *FindMethod(const std::vector<Method> &methods, std::string_view name);

// A record as the first method means it that has it in its request or reply; null for one that no method uses.
const meaning::Record *MeaningOf(const Type &type);

// The services' lists, in the order of Services().
std::span<const meaning::Service *const> Meanings();

const std::vector<std::string_view> &Services();

// What a slot holds, in words: "u32", "bytes[32]", "Systime", "vector of ThreadCpu".
std::string KindText(const Slot &slot);

// The largest value of a scalar of so many bytes.
constexpr uint64_t MaxScalar(uint32_t width) {
    return width == 8 ? UINT64_MAX : (uint64_t{1} << (8 * width)) - 1;
}

// A type and the types of the tables inside it, itself first, each once.
std::vector<const Type *> TypesWithin(const Type &type);

// Whether a part stands somewhere in a text, whatever their case.
bool Contains(std::string_view text, std::string_view part);

// The names most like the wanted one, best first; none when nothing is close.
std::vector<std::string> ClosestNames(std::string_view wanted, const std::vector<std::string_view> &names);

// "; did you mean A, B?"; when nothing is close "; expected A, B, C" if they are few, or nothing.
std::string DidYouMean(std::string_view wanted, const std::vector<std::string_view> &names);

} // namespace host::describe
