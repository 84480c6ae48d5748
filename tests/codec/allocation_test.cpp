// What decoders ask of the memory service: which blocks, in which order, under which names; and what they leave when
// it refuses one of them.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include "tests/codec/message.h"
#include "tests/codec/platform.h"
#include "tests/codec/swapped_mode.h"
#include "tests/codec/wire.h"

using velto::Kind;

namespace {
// What decoding a record asks for, and what releasing it gives back, in order.
class Storage {
public:
    Storage(const Type &type, const Json &record) {
        Allocate(type, record, "_unpack");
        Release(type, record);
    }
    std::vector<MemRequest> allocations;
    std::vector<std::string> releases;

private:
    static size_t ElementSize(const Slot &slot) { return slot.table != nullptr ? slot.table->shape->size : slot.width; }

    void Allocate(const Type &type, const Json &record, const char *operation) {
        const std::string function = FunctionName(type, operation);
        for (const Slot &slot : SlotsOf(type)) {
            const Json &value = record.at(slot.name);
            const auto ask = [&](size_t size) {
                allocations.push_back({kHasTags ? function : "", static_cast<uint32_t>(size)});
            };
            if (value.is_null()) {
                continue;
            }
            if (slot.kind == Kind::kString) {
                ask(value.get<std::string>().size() / 2 + 1);
            } else if (slot.kind == Kind::kByteVector) {
                ask(value.get<std::string>().size() / 2);
            } else if (velto::IsVectorKind(slot.kind)) {
                ask(value.size() * ElementSize(slot));
            }
            EachTable(slot, value, [&](const Json &table) { Allocate(*slot.table, table, "_unpack_non_root"); });
        }
    }

    void Release(const Type &type, const Json &record) {
        for (const Slot &slot : SlotsOf(type)) {
            const Json &value = record.at(slot.name);
            EachTable(slot, value, [&](const Json &table) { Release(*slot.table, table); });
            // One type hands null on too.
            const bool isPointer = slot.kind == Kind::kString || velto::IsVectorKind(slot.kind);
            const bool handsNullOn = kHasTags && type.name == std::string("DiagResult");
            if (isPointer && (!value.is_null() || handsNullOn)) {
                releases.push_back(kHasTags ? FunctionName(type, "_free_unpacked") : "");
            }
        }
    }

    template <class Visit>
    static void EachTable(const Slot &slot, const Json &value, Visit visit) {
        if (slot.kind == Kind::kTable) {
            visit(value);
        } else if (slot.table != nullptr && !value.is_null()) {
            for (const Json &table : value) {
                visit(table);
            }
        }
    }
};

// Calls check(type, record) for each type that owns memory.
template <class Check>
void EachOwner(Check check) {
    size_t owners = 0;
    for (const Type &type : velto::Registry()) {
        if (type.owns) {
            SCOPED_TRACE(type.name);
            std::mt19937 random(11);
            check(type, RandomRecord(type, random, Filling::kFull));
            ++owners;
        }
    }
    EXPECT_GT(owners, 0U);
    EXPECT_TRUE(PlatformTrace().misuse.empty()) << PlatformTrace().misuse.front();
}

// Refuses each allocation of a decode in turn, until none is refused.
void RefuseEachAllocation(const Type &type, const Bytes &message, const Json &record) {
    const Storage storage(type, record);
    auto &trace = PlatformTrace();
    for (size_t i = 0;; ++i) {
        SCOPED_TRACE("allocation " + std::to_string(i) + " refused");
        trace.Clear();
        trace.failAt = i;
        const Decoded decoded(type, message);
        if (decoded.Accepted()) {
            EXPECT_EQ(i, storage.allocations.size());
            EXPECT_EQ(decoded.ToJson(), record);
            EXPECT_TRUE(trace.log.empty());
            return;
        }
        ASSERT_LT(i, storage.allocations.size());
        EXPECT_TRUE(decoded.IsZero());
        EXPECT_TRUE(trace.live.empty());
        EXPECT_EQ(trace.allocations,
                  std::vector<MemRequest>(storage.allocations.begin(),
                                          storage.allocations.begin() + static_cast<ptrdiff_t>(i) + 1));
        ASSERT_EQ(trace.log.size(), 1U);
        EXPECT_EQ(trace.log[0].code, 12U);
        EXPECT_EQ(trace.log[0].format, "[VELTO]:Malloc unpack data failed, size(%u)");
        EXPECT_EQ(trace.log[0].args, Json::array({storage.allocations[i].size}));
        if (kHasTags) {
            EXPECT_EQ(trace.log[0].function, storage.allocations[i].tag);
        }
    }
}
} // namespace

TEST(Allocation, EveryBlockIsAskedForUnderTheDecodersNameInSlotOrder) {
    EachOwner([](const Type &type, const Json &record) {
        PlatformTrace().Clear();
        const Decoded decoded(type, Encode(type, record));
        ASSERT_TRUE(decoded.Accepted());
        EXPECT_EQ(PlatformTrace().allocations, Storage(type, record).allocations);
    });
}

TEST(Allocation, EveryBlockIsReleasedUnderTheReleasesNameElementsBeforeTheirArray) {
    EachOwner([](const Type &type, const Json &record) {
        Decoded decoded(type, Encode(type, record));
        ASSERT_TRUE(decoded.Accepted());
        PlatformTrace().Clear();
        decoded.Release();
        EXPECT_EQ(PlatformTrace().releases, Storage(type, record).releases);
        EXPECT_TRUE(PlatformTrace().live.empty());
    });
}

TEST(Allocation, ARefusalOfAnyOfThemFailsTheDecodeAndLeavesNothing) {
    EachOwner([](const Type &type, const Json &record) { RefuseEachAllocation(type, Encode(type, record), record); });
}

TEST(Allocation, ARefusalOfAnyOfThemFailsTheDecodeAndLeavesNothingInTheSwappedMode) {
    const SwappedMode swapped;
    EachOwner([](const Type &type, const Json &record) { RefuseEachAllocation(type, Encode(type, record), record); });
}

TEST(Allocation, ATypeWithoutStringsAndVectorsAsksForNothing) {
    for (const Type &type : velto::Registry()) {
        if (!type.owns) {
            PlatformTrace().Clear();
            std::mt19937 random(11);
            Decoded decoded(type, Encode(type, RandomRecord(type, random, Filling::kFull)));
            ASSERT_TRUE(decoded.Accepted());
            decoded.Release();
            EXPECT_TRUE(PlatformTrace().allocations.empty()) << type.name;
            EXPECT_TRUE(PlatformTrace().releases.empty()) << type.name;
        }
    }
}

TEST(Allocation, ReleaseOfADiagResultHandsNullOn) {
    if (!kHasTags) {
        GTEST_SKIP() << "malloc's free(null) cannot be told from the C library's own";
    }
    const Type &type = FindType("DiagResult");
    Decoded decoded(type, Encode(type, AbsentTable(type)));
    ASSERT_TRUE(decoded.Accepted());
    PlatformTrace().Clear();
    decoded.Release();
    EXPECT_EQ(PlatformTrace().releases, std::vector<std::string>{"Tarn_sys_diag_DiagResult_free_unpacked"});
}

TEST(Allocation, NoOtherReleaseHandsNullOn) {
    for (const Type &type : velto::Registry()) {
        if (type.name != std::string("DiagResult")) {
            Decoded decoded(type, Encode(type, AbsentTable(type)));
            ASSERT_TRUE(decoded.Accepted()) << type.name;
            PlatformTrace().Clear();
            decoded.Release();
            EXPECT_TRUE(PlatformTrace().releases.empty()) << type.name;
        }
    }
}

TEST(Allocation, ReleaseByItselfLeavesTheCounts) {
    const Type &type = FindType("Tids");
    Decoded decoded(type, Encode(type, RecordOf(type, {{"puiTids", {1, 2, 3}}})));
    ASSERT_TRUE(decoded.Accepted());
    decoded.Release();
    EXPECT_EQ(decoded.ToJson().at("puiTids"), "null pointer with count 3");
}

namespace {
// A message whose only present slot is a vector of `count` elements, all of whose offset words are 0. Most of it is
// memory that was never touched.
class SparseMessage {
public:
    SparseMessage(size_t slotNum, size_t slot, uint32_t count) : length_(kHead + 2 * slotNum + size_t{4} * count) {
        void *const memory =
            mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        bytes_ = memory == MAP_FAILED ? nullptr : static_cast<uint8_t *>(memory);
        if (bytes_ != nullptr) {
            const auto vtable = static_cast<uint16_t>(4 + 2 * slotNum);
            Bytes head =
                Message({U32(4U + vtable), U16(vtable), U16(0), Fill(2 * slotNum, 0), I32(vtable), U32(4), U32(count)});
            WriteNumber(head, 8 + 2 * slot, 2, 4);
            std::copy(head.begin(), head.end(), bytes_);
        }
    }
    ~SparseMessage() {
        if (bytes_ != nullptr) {
            munmap(bytes_, length_);
        }
    }
    SparseMessage(const SparseMessage &) = delete;
    SparseMessage &operator=(const SparseMessage &) = delete;

    const uint8_t *bytes() const { return bytes_; }
    uint32_t length() const { return static_cast<uint32_t>(length_); }

private:
    static constexpr size_t kHead = 20; // root offset, two lengths, distance word, offset word, count
    size_t length_;
    uint8_t *bytes_;
};
} // namespace

TEST(Allocation, AVectorWhoseBytesDoNotFit32BitsIsRefusedWithoutAskingForMemory) {
    constexpr size_t kLongest = 64 << 20;
    size_t checked = 0;
    for (const Type &type : velto::Registry()) {
        for (size_t i = 0; i < SlotsOf(type).size(); ++i) {
            const Slot &slot = SlotsOf(type)[i];
            if (slot.kind != Kind::kTableVector) {
                continue;
            }
            const uint64_t size = slot.table->shape->size;
            const auto count = static_cast<uint32_t>((uint64_t{1} << 32) / size + 1);
            if (uint64_t{4} * count > kLongest) {
                continue;
            }
            SCOPED_TRACE(std::string(type.name) + "." + slot.name + ", " + std::to_string(count) + " elements");
            ASSERT_GT(uint64_t{count} * size, uint64_t{UINT32_MAX});
            const SparseMessage message(SlotsOf(type).size(), i, count);
            ASSERT_NE(message.bytes(), nullptr);
            PlatformTrace().Clear();
            const Decoded decoded(type, message.bytes(), message.length());
            EXPECT_FALSE(decoded.Accepted());
            EXPECT_TRUE(decoded.IsZero());
            EXPECT_TRUE(PlatformTrace().allocations.empty());
            ASSERT_EQ(PlatformTrace().log.size(), 1U);
            EXPECT_EQ(PlatformTrace().log[0].function, FunctionName(type, "_unpack"));
            EXPECT_EQ(PlatformTrace().log[0].code, 12U);
            EXPECT_EQ(PlatformTrace().log[0].format, "[VELTO]:Malloc unpack data failed, size(%u)");
            ++checked;
        }
    }
    EXPECT_GT(checked, 0U) << "no element is large enough for a message of " << kLongest << " bytes";
}

// Where pointers have 32 bits, no such vector fits the memory.
#if UINTPTR_MAX > UINT32_MAX
TEST(Allocation, AVectorOfTablesWhoseRegularFormDoesNotFit32BitsHasNoSize) {
    const Type &type = FindType("SysMemStatisFileResult");
    const velto::SlotShape &slot = type.shape->Slot(0);
    const velto::TypeShape &element = *type.shape->Element(slot).type;
    const std::vector<uint8_t> empty(std::max(element.size, type.shape->size));
    const uint32_t elementSize = FindType("SysMemStatisFile").pack(nullptr, empty.data()); // 4 are its offset word
    const auto count = static_cast<uint32_t>((uint64_t{1} << 32) / elementSize + 1);

    const size_t length = size_t{count} * element.size;
    void *const elements = mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(elements, MAP_FAILED);
    std::vector<uint8_t> record(empty.begin(), empty.begin() + type.shape->size);
    memcpy(record.data() + slot.offset, &elements, sizeof elements);
    const auto sizeOf = [&](uint32_t number) {
        memcpy(record.data() + slot.length, &number, sizeof number);
        return type.pack(nullptr, record.data());
    };
    EXPECT_EQ(sizeOf(count - 2), sizeOf(1) + uint64_t{elementSize} * (count - 3)) << "just fits";
    EXPECT_EQ(sizeOf(count), 0U);
    munmap(elements, length);
}
#endif

TEST(Allocation, AVectorOfBytesIsCopiedByThePlatformsCopyForLargeBlocksWhereThereIsOne) {
    const Type &type = FindType("mem_RPCIN");
    PlatformTrace().Clear();
    Encode(type, RecordOf(type, {{"pucMemData", Hex("data")}}));
    EXPECT_EQ(PlatformTrace().copiesOptimised, kHasOptimisedCopy ? 1U : 0U);
    EXPECT_EQ(PlatformTrace().copiesChecked, kHasOptimisedCopy ? 0U : 1U);
}
