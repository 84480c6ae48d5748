// Gives back what a decoder allocated inside a record, in slot order, what elements own before the array that holds
// them. Pointers are nulled, so a second release is harmless; counts stay.
#pragma once

#include "velto/decode.h"

namespace velto {

template <class Unit, class Element>
void ReleaseElements(Element *elements, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        Codec<Unit, Element>::kFreeUnpacked(elements + i);
    }
}

template <class Unit>
[[gnu::noinline]] void ReleaseBlock(void *block, const char *function) {
    Unit::binding.EnsureMemBound();
    Unit::binding.Free(block, function);
}

template <class Unit, class Record>
void ReleaseMembers(Record &record, const char *function) {
    EachSlot<Record>([&]<class Slot, size_t>() {
        using Element = typename Slot::Element;
        auto &value = Slot::Get(record);
        if constexpr (Slot::kKind == Kind::kString || IsVectorKind(Slot::kKind)) {
            if (kReleasesNull<Record> || value != nullptr) {
                if constexpr (Slot::kKind == Kind::kTableVector && kOwns<Element>) {
                    ReleaseElements<Unit>(value, Slot::Count(record));
                }
                ReleaseBlock<Unit>(value, function);
                value = nullptr;
            }
        } else if constexpr (Slot::kKind == Kind::kTableRun && kOwns<Element>) {
            ReleaseElements<Unit>(value, Slot::kLength);
        } else if constexpr (Slot::kKind == Kind::kTable && kOwns<Element>) {
            ReleaseElements<Unit>(&value, 1);
        }
    });
}

} // namespace velto
