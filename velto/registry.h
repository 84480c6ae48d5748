// The described types as data, with their names, for tools and tests that work on any type. A source file includes this
// one, says TARN_UNIT() and includes the headers of types/: each type's line then enters it here, with codecs of that
// unit. With VELTO_NAMES_ONLY defined before it there are no codecs, for which compilers take long. The library itself
// is built without the names.
#pragma once

#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, inline) VELTO_CODECS(type) VELTO_REGISTER(type)

#include <vector>

#include "velto/codec.h"

namespace velto {

struct TypeInfo {
    const char *name; // without the Tarn_sys_diag_ prefix
    uint32_t hash;
    const TypeShape *shape;
    const SlotName *slotNames;
    bool owns;
    VeltoPackFn pack; // null with VELTO_NAMES_ONLY, and so are the next three
    VeltoUnpackFn unpack;
    VeltoFreeFn freeUnpacked;
    VeltoFixedPackFn packFixed;   // null for a type without fixed form
    VeltoFixedSizeFn fixedSize;   // null for a type without fixed form
    const uint32_t *fixedOffsets; // of each slot from the table's start; null for a type without fixed form
};

// In the order of declaration: element types stand before the types that hold them.
inline std::vector<TypeInfo> &Registry() {
    static std::vector<TypeInfo> types;
    return types;
}

template <class Record>
constexpr const uint32_t *FixedOffsets() {
    if constexpr (kHasFixed<Record>) {
        return kLayout<Record, Form::kFixed>.fields.data();
    } else {
        return nullptr;
    }
}

template <class Unit, class Record>
bool Register() {
    using Functions = Codec<Unit, Record>;
    constexpr bool kFixed = kHasFixed<Record>;
    TypeInfo type{};
    type.name = Table<Record>::kName;
    type.hash = kTypeHash<Record>;
    type.shape = &Shape<Record>::kType;
    type.slotNames = Table<Record>::kSlotNames;
    type.owns = kOwns<Record>;
#ifndef VELTO_NAMES_ONLY
    type.pack = Functions::kPack;
    type.unpack = Functions::kUnpack;
    type.freeUnpacked = Functions::kFreeUnpacked;
    type.packFixed = kFixed ? Functions::kPackFixed : nullptr;
#endif
    type.fixedSize = kFixed ? Functions::kFixedSize : nullptr;
    type.fixedOffsets = FixedOffsets<Record>();
    Registry().push_back(type);
    return true;
}

} // namespace velto

#define VELTO_REGISTER(type)                                                                                           \
    [[maybe_unused]] static const bool kRegistered_##type = ::velto::Register<Unit, Tarn_sys_diag_##type>();
