// The two forms in which the structure of a record without strings and vectors (vtables, distances, offset words,
// counts) is a constant of its type, and so is the place of every byte:
//
// - the fixed form has every field, whatever its value, at its natural alignment within its table, at most 4. A table's
//   vtable follows its data at the next multiple of 4. Bytes in the gaps are not written;
// - the full form is what the regular form comes to when no scalar is 0. There is no gap.
//
// Both are written, recognised and read by what follows here. Where there is room, decoders try it first, as this is
// what most messages are; any other table takes the general path, which comes to the same record.
#pragma once

#include <array>

#include "velto/bytes.h"
#include "velto/describe.h"

namespace velto {

enum class Form { kFixed, kFull };

template <class Record>
constexpr bool kHasFixed = !kOwns<Record>;
template <class Record>
constexpr bool kHasFull = kPrefersSpeed && !kOwns<Record>;

template <class Record>
constexpr uint32_t kVtableSize = 4 + 2 * uint32_t{kSlotNum<Record>};

constexpr uint32_t AlignUp(uint32_t value, uint32_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

// Places within a block, which is a table, its vtable, and all that its offset words lead to. The block of a nested
// table lies within that of the table around it.
template <size_t kSlots>
struct Layout {
    uint32_t table;
    uint32_t vtable;
    std::array<uint32_t, kSlots> fields; // scalars and offset words
    std::array<uint32_t, kSlots> data;   // what an offset word refers to: a count, or a nested table's block
    uint32_t tableEnd;                   // what the vtable says of it
    uint32_t size;
};

template <class Record, Form kForm>
constexpr auto MakeLayout();

template <class Record, Form kForm>
constexpr auto kLayout = MakeLayout<Record, kForm>();

// From one element of a run to the next. In the fixed form each stands at a multiple of 4.
template <class Record, Form kForm>
constexpr uint32_t kStride = AlignUp(kLayout<Record, kForm>.size, kForm == Form::kFixed ? 4 : 1);

// Where element `i` of a run has its offset word and its block, from the run's count.
constexpr uint32_t ElementWordAt(uint32_t i) {
    return 4 + 4 * i;
}
template <class Slot, Form kForm>
constexpr uint32_t ElementBlock(uint32_t i) {
    return ElementWordAt(Slot::kLength) + kStride<typename Slot::Element, kForm> * i;
}

// The bytes that an offset word refers to.
template <class Slot, Form kForm>
constexpr uint32_t DataBytes() {
    if constexpr (Slot::kKind == Kind::kTable) {
        return kLayout<typename Slot::Element, kForm>.size;
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return ElementBlock<Slot, kForm>(Slot::kLength);
    } else {
        return 4 + uint32_t{sizeof(typename Slot::Value)};
    }
}

// Takes steps for the slots in the order of their places: the full form has all scalars, then all offset words, then
// all that they lead to; the fixed form has each slot's together.
template <class Record, Form kForm, class... Step>
constexpr void EachStep(Step... step) {
    if constexpr (kForm == Form::kFull) {
        (EachSlot<Record>(step), ...);
    } else {
        EachSlot<Record>([&]<class Slot, size_t kIndex>() { (step.template operator()<Slot, kIndex>(), ...); });
    }
}

template <class Record, Form kForm>
constexpr auto MakeLayout() {
    Layout<kSlotNum<Record>> layout{};
    layout.table = kForm == Form::kFull ? kVtableSize<Record> : 0;
    uint32_t at = layout.table + 4;
    const auto placeScalar = [&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind == Kind::kScalar) {
            constexpr uint32_t kWidth = sizeof(typename Slot::Value);
            at = AlignUp(at, kForm == Form::kFull ? 1 : kWidth < 4 ? kWidth : 4);
            layout.fields[kIndex] = at;
            at += kWidth;
        }
    };
    const auto placeWord = [&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind != Kind::kScalar) {
            at = AlignUp(at, kForm == Form::kFull ? 1 : 4);
            layout.fields[kIndex] = at;
            at += 4;
        }
    };
    const auto placeData = [&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind != Kind::kScalar) {
            layout.data[kIndex] = at;
            at += DataBytes<Slot, kForm>();
        }
    };
    EachStep<Record, kForm>(placeScalar, placeWord, placeData);
    layout.tableEnd = at;
    layout.vtable = kForm == Form::kFull ? 0 : AlignUp(at, 4);
    layout.size = kForm == Form::kFull ? at : layout.vtable + kVtableSize<Record>;
    return layout;
}

// What the buffer for the fixed form must hold.
template <class Record>
constexpr uint32_t kFixedSize = AlignUp(4 + kLayout<Record, Form::kFixed>.size, 8);

// Bytes that are neighbours in a block and where they come from: the record, or the constants of the block.
struct Run {
    uint32_t at;
    uint32_t from;
    uint32_t size;
};

// Runs, those that touch at both ends made one.
template <size_t kMost>
struct RunList {
    std::array<Run, kMost> runs{};
    size_t num = 0;

    constexpr void Add(Run run) {
        Run *const last = num == 0 ? nullptr : &runs[num - 1];
        if (last != nullptr && last->at + last->size == run.at && last->from + last->size == run.from) {
            last->size += run.size;
        } else {
            runs[num++] = run;
        }
    }
};

// Calls function.operator()<run>() for each run of a constant list, until one returns false.
template <const auto &kList, class Function>
[[gnu::always_inline]] inline bool AllRuns(Function function) {
    return [&]<size_t... kIndex>(std::index_sequence<kIndex...>) __attribute__((always_inline)) {
        return (Expected(function.template operator()<kList.runs[kIndex]>()) && ...);
    }
    (std::make_index_sequence<kList.num>());
}

template <const auto &kList, class Function>
[[gnu::always_inline]] inline void EachRun(Function function) {
    [&]<size_t... kIndex>(std::index_sequence<kIndex...>) __attribute__((always_inline)) {
        (function.template operator()<kList.runs[kIndex]>(), ...);
    }
    (std::make_index_sequence<kList.num>());
}

// The bytes of a block that are the same for each record; those of tables inside are theirs, and so are the offset
// words of a run's elements.
template <size_t kMostBytes, size_t kMostRuns>
struct Constants {
    std::array<uint8_t, kMostBytes> bytes{};
    uint32_t size = 0;
    RunList<kMostRuns> list{};

    constexpr void Add(uint32_t at, uint32_t value, uint32_t width) {
        list.Add({at, size, width});
        for (uint32_t i = 0; i < width; ++i) {
            bytes[size++] = static_cast<uint8_t>(value >> 8 * i);
        }
    }
};

template <class Record, Form kForm>
constexpr auto MakeConstants() {
    constexpr auto &kPlaces = kLayout<Record, kForm>;
    static_assert(kSlotNum<Record> == 0 || kPlaces.fields.back() <= 0xFFFF, "a vtable entry has 16 bits");
    Constants<kVtableSize<Record> + 4 + 8 * kSlotNum<Record>, 2 + 2 * kSlotNum<Record>> constants;
    const auto addVtable = [&] {
        constants.Add(kPlaces.vtable, kVtableSize<Record>, 2);
        constants.Add(kPlaces.vtable + 2, kPlaces.tableEnd - kPlaces.table, 2);
        for (size_t i = 0; i < kSlotNum<Record>; ++i) {
            constants.Add(static_cast<uint32_t>(kPlaces.vtable + 4 + 2 * i), kPlaces.fields[i] - kPlaces.table, 2);
        }
    };
    // By a name of their own: with sanitizers g++ 12 does not survive the reference from around them.
    const auto addWord = [&]<class Slot, size_t kIndex>() {
        constexpr auto &kOwn = kLayout<Record, kForm>;
        if constexpr (Slot::kKind == Kind::kTable) {
            constexpr uint32_t kTable = kLayout<typename Slot::Element, kForm>.table;
            constants.Add(kOwn.fields[kIndex], kOwn.data[kIndex] + kTable - kOwn.fields[kIndex], 4);
        } else if constexpr (Slot::kKind != Kind::kScalar) {
            constants.Add(kOwn.fields[kIndex], kOwn.data[kIndex] - kOwn.fields[kIndex], 4);
        }
    };
    const auto addCount = [&]<class Slot, size_t kIndex>() {
        constexpr auto &kOwn = kLayout<Record, kForm>;
        if constexpr (Slot::kKind != Kind::kScalar && Slot::kKind != Kind::kTable) {
            constants.Add(kOwn.data[kIndex], Slot::kLength, 4);
        }
    };
    // In the order of their places.
    if constexpr (kForm == Form::kFull) {
        addVtable();
    }
    constants.Add(kPlaces.table, kPlaces.table - kPlaces.vtable, 4);
    EachStep<Record, kForm>(addWord, addCount);
    if constexpr (kForm == Form::kFixed) {
        addVtable();
    }
    return constants;
}

template <class Record, Form kForm>
constexpr auto kConstants = MakeConstants<Record, kForm>();
template <class Record, Form kForm>
constexpr auto kConstantRuns = kConstants<Record, kForm>.list;

// These alone are in the program.
template <class Record, Form kForm>
constexpr auto kConstantBytes = [] {
    std::array<uint8_t, kConstants<Record, kForm>.size> bytes{};
    std::copy_n(kConstants<Record, kForm>.bytes.begin(), bytes.size(), bytes.begin());
    return bytes;
}();

// What is copied between a record and a block: scalars and arrays.
template <class Record, Form kForm>
constexpr auto kCopies = [] {
    RunList<kSlotNum<Record>> copies;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        constexpr auto &kPlaces = kLayout<Record, kForm>;
        constexpr uint32_t kSize = sizeof(typename Slot::Value);
        if constexpr (Slot::kKind == Kind::kScalar) {
            copies.Add({kPlaces.fields[kIndex], Slot::kOffset, kSize});
        } else if constexpr (!IsTableKind(Slot::kKind)) {
            copies.Add({kPlaces.data[kIndex] + 4, Slot::kOffset, kSize});
        }
    });
    return copies;
}();

template <class Slot, Form kForm>
constexpr uint32_t ElementWord(uint32_t i) {
    return ElementBlock<Slot, kForm>(i) - ElementWordAt(i) + kLayout<typename Slot::Element, kForm>.table;
}

// Writes a table of a form and all that it leads to.
template <Form kForm, class Record>
VELTO_STRAIGHT void WriteBlock(uint8_t *block, const Record &record) {
    const auto *const members = reinterpret_cast<const uint8_t *>(&record);
    EachRun<kConstantRuns<Record, kForm>>([&]<Run kRun>() __attribute__((always_inline)) {
        CopyArray<kRun.size>(block + kRun.at, kConstantBytes<Record, kForm>.data() + kRun.from);
    });
    EachRun<kCopies<Record, kForm>>([&]<Run kRun>() __attribute__((always_inline)) {
        CopyArray<kRun.size>(block + kRun.at, members + kRun.from);
    });
    EachSlot<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
        uint8_t *const data = block + kLayout<Record, kForm>.data[kIndex];
        if constexpr (Slot::kKind == Kind::kTable) {
            WriteBlock<kForm>(data, Slot::Get(record));
        } else if constexpr (Slot::kKind == Kind::kTableRun) {
            for (uint32_t i = 0; i < Slot::kLength; ++i) {
                Store(data + ElementWordAt(i), ElementWord<Slot, kForm>(i));
                WriteBlock<kForm>(data + ElementBlock<Slot, kForm>(i), Slot::Get(record)[i]);
            }
        }
    });
}

// Whether as many bytes as a form's block has have its structure. Gaps may hold anything.
template <Form kForm, class Record>
VELTO_STRAIGHT bool HasStructure(const uint8_t *block) {
    const bool same = AllRuns<kConstantRuns<Record, kForm>>([&]<Run kRun>() __attribute__((always_inline)) {
        return SameBytes<kRun.size>(block + kRun.at, kConstantBytes<Record, kForm>.data() + kRun.from);
    });
    return same && AllSlots<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
               [[maybe_unused]] const uint8_t *const data = block + kLayout<Record, kForm>.data[kIndex];
               bool sameTables = true;
               if constexpr (Slot::kKind == Kind::kTable) {
                   sameTables = HasStructure<kForm, typename Slot::Element>(data);
               } else if constexpr (Slot::kKind == Kind::kTableRun) {
                   for (uint32_t i = 0; sameTables && i < Slot::kLength; ++i) {
                       sameTables = Load<uint32_t>(data + ElementWordAt(i)) == ElementWord<Slot, kForm>(i) &&
                                    HasStructure<kForm, typename Slot::Element>(data + ElementBlock<Slot, kForm>(i));
                   }
               }
               return sameTables;
           });
}

// Clears what lies between a member and the next or the record's end.
template <class Record, size_t kIndex>
[[gnu::always_inline]] inline void ClearGap(Record &record) {
    using Slot = SlotOf<Record, kIndex>;
    constexpr size_t kEnd = Slot::kOffset + sizeof(typename Slot::Value);
    if constexpr (kIndex + 1 < kSlotNum<Record>) {
        memset(reinterpret_cast<uint8_t *>(&record) + kEnd, 0, SlotOf<Record, kIndex + 1>::kFirst - kEnd);
    } else {
        memset(reinterpret_cast<uint8_t *>(&record) + kEnd, 0, sizeof(Record) - kEnd);
    }
}

// Fills a record, whatever it held, from a block that has the structure; the gaps between members with 0.
template <Form kForm, class Record>
VELTO_STRAIGHT void ReadBlock(const uint8_t *block, Record &record) {
    auto *const members = reinterpret_cast<uint8_t *>(&record);
    EachRun<kCopies<Record, kForm>>([&]<Run kRun>() __attribute__((always_inline)) {
        CopyArray<kRun.size>(members + kRun.from, block + kRun.at);
    });
    EachSlot<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
        const uint8_t *const data = block + kLayout<Record, kForm>.data[kIndex];
        if constexpr (Slot::kKind == Kind::kTable) {
            ReadBlock<kForm>(data, Slot::Get(record));
        } else if constexpr (Slot::kKind == Kind::kTableRun) {
            for (uint32_t i = 0; i < Slot::kLength; ++i) {
                ReadBlock<kForm>(data + ElementBlock<Slot, kForm>(i), Slot::Get(record)[i]);
            }
        }
        ClearGap<Record, kIndex>(record);
    });
}

} // namespace velto
