// For a unit outside the library, in a program or library that does not link the library's own: as velto/codec.h, and
// with it the shapes of the types. Then TARN_UNIT() and the headers of types/ follow. The functions are templates: of
// all the types in a header, a program uses few, and compilers take seconds for each hundred. Decoders are one function
// that goes by the type's shape: smaller than straight code for each type, and quick enough for what comes in here.
#pragma once

#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, inline)

#include <algorithm>
#include <array>
#include <string_view>

#include "velto/codec.h"

namespace velto {

template <size_t kSize>
struct FunctionSuffix {
    consteval FunctionSuffix(const char (&literal)[kSize]) { std::copy_n(literal, kSize, text); }
    char text[kSize];
};

// What the log calls a function: the name that it has in the library.
template <class Record, FunctionSuffix kSuffix>
constexpr auto kFunctionName = [] {
    constexpr std::string_view kPrefix = "Tarn_sys_diag_", kType = Table<Record>::kName;
    std::array<char, kPrefix.size() + kType.size() + sizeof kSuffix.text> name{};
    char *at = std::copy(kPrefix.begin(), kPrefix.end(), name.begin());
    at = std::copy(kType.begin(), kType.end(), at);
    std::copy(std::begin(kSuffix.text), std::end(kSuffix.text), at);
    return name;
}();

template <class Unit>
[[gnu::noinline]] void *UnpackByShape(const Message &message, void *record, const TypeShape &type, VeltoFreeFn release,
                                      const char *function) {
    OpenedTable table;
    Opened opened = BeginUnpack<Unit>(message, record, type, function, table);
    if (opened == Opened::kStraight) {
        memset(record, 0, type.size);
        opened = DecodeByShape<Unit>(message, type, table, record, function);
    }
    if (opened == Opened::kRefused) {
        return nullptr;
    }
    return opened == Opened::kDone ? record : Abandon(record, type, release);
}

// The functions are templates of their own, and compiled only where the codec's members are used.
template <class Unit, class Record>
struct OnDemand {
    static uint32_t Pack(const VeltoOutBuf *out, const void *record) {
        return velto::Pack<Unit, Record>(out, record, kFunctionName<Record, "_pack">.data());
    }
    static void *Unpack(const uint8_t *bytes, uint32_t length, void *record) {
        return UnpackByShape<Unit>({bytes, length}, record, Shape<Record>::kType,
                                   kOwns<Record> ? FreeUnpacked : nullptr, kFunctionName<Record, "_unpack">.data());
    }
    static void *FreeUnpacked(void *record) {
        return velto::FreeUnpacked<Unit, Record>(record, kFunctionName<Record, "_free_unpacked">.data());
    }
    static uint32_t PackFixed(uint8_t *message, const void *record) {
        return velto::PackFixed<Unit, Record>(message, record);
    }
    static uint32_t FixedSize() { return velto::FixedSize<Record>(); }
};

// What the library's macros define type by type.
template <class Unit, class Record>
struct Codec {
    using Functions = OnDemand<Unit, Record>;
    static constexpr auto kPack = Functions::Pack;
    static constexpr auto kUnpack = Functions::Unpack;
    static constexpr auto kFreeUnpacked = Functions::FreeUnpacked;
    static constexpr auto kPackFixed = Functions::PackFixed;
    static constexpr auto kFixedSize = Functions::FixedSize;
};

} // namespace velto
