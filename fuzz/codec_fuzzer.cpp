// Any bytes to any decoder; what is accepted is encoded, decoded again, compared and released.
//
// Input: type key (2), mode (1), message. Bit 0 of the mode reverses the byte order; the others say which of a decode's
// allocations to refuse, counted from 1.
#include <cstdarg>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/padding.h"
#include "velto/registry.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"
#include "tarn_sysdiag/types/time.h"

using fuzz::Get;
using velto::Kind;
using velto::TypeInfo;
using velto::TypeShape;

namespace {

// What the codecs have asked of the platform since the input began.
struct Platform {
    size_t live = 0;
    size_t allocated = 0; // bytes, in all
    size_t logged = 0;
    size_t untilRefusal = 0; // allocations up to the one to refuse; 0 when none is
};
Platform platform_;

// Tables may be shared, so that a small message can ask for a great deal of memory; beyond this there is none.
constexpr size_t kMemory = 8 << 20;

} // namespace

extern "C" {

uint32_t XRT_OsalMemUseFlagGet(uint32_t) {
    return 1;
}

void *XRT_OsalMemCacheAlloc(uint32_t size, uint32_t, const char *) {
    const bool refused = platform_.untilRefusal != 0 && --platform_.untilRefusal == 0;
    if (refused || size > kMemory - platform_.allocated) {
        return nullptr;
    }
    platform_.allocated += size;
    ++platform_.live;
    return malloc(size);
}

void XRT_OsalMemFree(void *block, uint32_t, const char *) {
    platform_.live -= block != nullptr ? 1 : 0;
    free(block);
}

void XRT_OsalLogWrite(const XrtLogModule *, uint32_t, uint32_t, const char *, uint32_t, const char *,
                      const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    ++platform_.logged;
}

int memcpy_s(void *to, size_t room, const void *from, size_t count) {
    FUZZ_CHECK(count <= room, "copy of %zu bytes to %zu", count, room);
    memcpy(to, from, count);
    return 0;
}

int memset_s(void *to, size_t room, int value, size_t count) {
    FUZZ_CHECK(count <= room, "%zu bytes of %zu set", count, room);
    memset(to, value, count);
    return 0;
}

} // extern "C"

namespace {

bool Same(const TypeShape &type, const uint8_t *left, const uint8_t *right);

bool SameTables(const TypeShape &type, const uint8_t *left, const uint8_t *right, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (!Same(type, left + i * type.size, right + i * type.size)) {
            return false;
        }
    }
    return true;
}

bool SameSlot(const TypeShape &type, const velto::SlotShape &slot, const uint8_t *left, const uint8_t *right) {
    const uint8_t *const leftMember = left + slot.offset;
    const uint8_t *const rightMember = right + slot.offset;
    switch (slot.kind) {
    case Kind::kScalar:
        return memcmp(leftMember, rightMember, slot.width) == 0;
    case Kind::kBytes:
    case Kind::kArray64:
        return memcmp(leftMember, rightMember, size_t{slot.length} * slot.width) == 0;
    case Kind::kTable:
        return Same(*type.Element(slot).type, leftMember, rightMember);
    case Kind::kTableRun:
        return SameTables(*type.Element(slot).type, leftMember, rightMember, slot.length);
    default:
        break;
    }
    const auto *const leftData = Get<const uint8_t *>(left, slot.offset);
    const auto *const rightData = Get<const uint8_t *>(right, slot.offset);
    if (leftData == nullptr || rightData == nullptr) {
        return leftData == rightData;
    }
    if (slot.kind == Kind::kString) {
        return strcmp(reinterpret_cast<const char *>(leftData), reinterpret_cast<const char *>(rightData)) == 0;
    }
    const auto count = Get<uint32_t>(left, slot.length);
    if (count != Get<uint32_t>(right, slot.length)) {
        return false;
    }
    return slot.kind == Kind::kTableVector ? SameTables(*type.Element(slot).type, leftData, rightData, count)
                                           : memcmp(leftData, rightData, size_t{count} * slot.width) == 0;
}

bool Same(const TypeShape &type, const uint8_t *left, const uint8_t *right) {
    for (size_t i = 0; i < type.slotNum; ++i) {
        if (!SameSlot(type, type.Slot(i), left, right)) {
            return false;
        }
    }
    return true;
}

void SetMemory(size_t allocationToRefuse) {
    platform_.allocated = 0;
    platform_.untilRefusal = allocationToRefuse;
}

bool AllBytesAre(const fuzz::Block &block, uint8_t value) {
    for (size_t i = 0; i < block.size; ++i) {
        if (block.data()[i] != value) {
            return false;
        }
    }
    return true;
}

// A record decoded from a message, with what a decoder owes its caller checked; released at the end.
class Decoded {
public:
    Decoded(const TypeInfo &type, const fuzz::Block &message) : type_(type), record_(type.shape->size, kUntouched) {
        const size_t live = platform_.live, logged = platform_.logged;
        void *const result = type.unpack(message.data(), message.length(), record_.data());
        accepted_ = result != nullptr;
        if (accepted_) {
            FUZZ_CHECK(result == record_.data(), "%s: not the caller's record", type.name);
            FUZZ_CHECK(platform_.logged == logged, "%s: an accepted message is logged", type.name);
            FUZZ_CHECK(fuzz::PaddingIsZero(*type.shape, record_.data()), "%s: padding is not cleared", type.name);
            return;
        }
        FUZZ_CHECK(platform_.live == live, "%s: a refusal leaves storage", type.name);
        FUZZ_CHECK(platform_.logged <= logged + 1, "%s: a refusal is logged %zu times", type.name,
                   platform_.logged - logged);
        FUZZ_CHECK(AllBytesAre(record_, 0) || AllBytesAre(record_, kUntouched), "%s: a refusal leaves values",
                   type.name);
    }
    ~Decoded() {
        if (accepted_) {
            type_.freeUnpacked(record_.data());
            type_.freeUnpacked(record_.data()); // harmless
        }
    }
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;

    bool Accepted() const { return accepted_; }
    const uint8_t *Record() const { return record_.data(); }

private:
    static constexpr uint8_t kUntouched = 0xEE;

    const TypeInfo &type_;
    fuzz::Block record_;
    bool accepted_ = false;
};

// The table-driven decoder must come to the verdict and the record of the straight-line one.
void CompareDecoders(const TypeInfo &type, const fuzz::Block &bytes, const Decoded &decoded,
                     size_t allocationToRefuse) {
    SetMemory(allocationToRefuse);
    const velto::Message message{bytes.data(), bytes.length()};
    velto::OpenedTable table;
    if (bytes.size < 4 ||
        !velto::OpenTable(Unit::binding, message, velto::Load<uint32_t>(message.bytes), "table-driven", table)) {
        FUZZ_CHECK(!decoded.Accepted(), "%s: the table-driven decoder refuses the root table", type.name);
        return;
    }
    const fuzz::Block record(type.shape->size, 0);
    const bool accepted = velto::TableDriven<false>(Unit::binding, message)
                              .DecodeFields(*type.shape, table, record.data(), "table-driven");
    FUZZ_CHECK(accepted == decoded.Accepted(), "%s: the table-driven decoder says %d", type.name, accepted);
    FUZZ_CHECK(!accepted || Same(*type.shape, record.data(), decoded.Record()),
               "%s: the table-driven decoder gives another record", type.name);
    type.freeUnpacked(record.data());
}

void EncodeFixed(const TypeInfo &type, const void *record, fuzz::Block &message) {
    type.packFixed(message.data(), record);
}

void EncodeRegular(const TypeInfo &type, const void *record, fuzz::Block &message) {
    auto size = message.length();
    const VeltoOutBuf out{message.data(), &size};
    const uint32_t written = type.pack(&out, record);
    FUZZ_CHECK(written == message.size, "%s: %u bytes written, the size query said %zu", type.name, written,
               message.size);
}

// Encodes into two buffers that held different bytes. Each byte that a reader visits is written, and no other.
template <class EncodeInto>
fuzz::Block Encode(const TypeInfo &type, const void *record, size_t size, EncodeInto encode) {
    constexpr uint8_t kHeld = 0xAA, kOtherHeld = 0x55;
    fuzz::Block message(size, kHeld), other(size, kOtherHeld);
    encode(type, record, message);
    encode(type, record, other);
    const fuzz::Visited visited(*type.shape, message, Unit::binding.Swapped());
    for (size_t i = 0; i < size; ++i) {
        const uint8_t byte = message.data()[i], otherByte = other.data()[i];
        FUZZ_CHECK(visited.Has(i) ? byte == otherByte : byte == kHeld && otherByte == kOtherHeld,
                   "%s: byte %zu of %zu is %s", type.name, i, size, visited.Has(i) ? "left as it was" : "written");
    }
    return message;
}

void CheckRoundTrip(const TypeInfo &type, const fuzz::Block &message, const uint8_t *record, const char *form) {
    SetMemory(0);
    const Decoded again(type, message);
    FUZZ_CHECK(again.Accepted(), "%s: its own %s form is refused", type.name, form);
    FUZZ_CHECK(Same(*type.shape, record, again.Record()), "%s: the %s form changes the record", type.name, form);
}

void CheckEncoders(const TypeInfo &type, const uint8_t *record) {
    if (type.packFixed != nullptr) {
        CheckRoundTrip(type, Encode(type, record, type.fixedSize(), EncodeFixed), record, "fixed");
    }
    const uint32_t size = type.pack(nullptr, record);
    FUZZ_CHECK(size != 0, "%s: the size query refuses a decoded record", type.name);
    if (size <= 4 * kMemory) {
        CheckRoundTrip(type, Encode(type, record, size, EncodeRegular), record, "regular");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < fuzz::kKeySize + 1) {
        return -1;
    }
    static const fuzz::TypePicker<TypeInfo> types(velto::Registry());
    FUZZ_CHECK(types.Size() == velto::Registry().size(), "two types have one key");
    const TypeInfo &type = types.Pick(data);
    const bool swapped = (data[fuzz::kKeySize] & 1) != 0;
    const size_t allocationToRefuse = data[fuzz::kKeySize] >> 1;
    Unit::binding.EnsureMemBound(); // which clears the flag
    Unit::binding.SetSwapped(swapped);
    platform_ = {};
    SetMemory(allocationToRefuse);
    {
        const fuzz::Block message(data + fuzz::kKeySize + 1, size - fuzz::kKeySize - 1);
        const Decoded decoded(type, message);
        if (!swapped) {
            CompareDecoders(type, message, decoded, allocationToRefuse);
        }
        if (decoded.Accepted()) {
            CheckEncoders(type, decoded.Record());
        }
    }
    FUZZ_CHECK(platform_.live == 0, "%s: %zu blocks live at the end", type.name, platform_.live);
    return 0;
}
