// The codec functions of a type: what the runtime calls. A source file that includes this one, says TARN_UNIT() and
// then includes headers of types/ gets, for each type, functions of its own under the names that the log shows.
#pragma once

#include "tarn_sysdiag/platform/rpc.h"

#ifndef VELTO_ON_TABLE
#define VELTO_ON_TABLE(type) VELTO_DECLARE_SHAPE(type) VELTO_CODECS(type)
#endif

// A unit's functions for one type; what the unit does not use is not compiled.
#define VELTO_CODECS(type)                                                                                             \
    extern "C" {                                                                                                       \
    [[maybe_unused]] static uint32_t Tarn_sys_diag_##type##_pack(const VeltoOutBuf *out, const void *record) {         \
        return ::velto::Pack<Unit, Tarn_sys_diag_##type>(out, record, "Tarn_sys_diag_" #type "_pack");                 \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_unpack(const uint8_t *bytes, uint32_t length, void *record) { \
        return ::velto::Unpack<Unit, Tarn_sys_diag_##type>({bytes, length}, record, "Tarn_sys_diag_" #type "_unpack"); \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_unpack_non_root(const uint8_t *bytes, uint32_t length,        \
                                                                         void *record, uint32_t position) {            \
        return ::velto::UnpackNonRoot<Unit, Tarn_sys_diag_##type>({bytes, length}, record, position,                   \
                                                                  "Tarn_sys_diag_" #type "_unpack_non_root");          \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_free_unpacked(void *record) {                                 \
        return ::velto::FreeUnpacked<Unit, Tarn_sys_diag_##type>(record, "Tarn_sys_diag_" #type "_free_unpacked");     \
    }                                                                                                                  \
    [[maybe_unused]] static uint32_t Tarn_sys_diag_##type##_pack_fixed(uint8_t *message, const void *record) {         \
        return ::velto::PackFixed<Unit, Tarn_sys_diag_##type>(message, record);                                        \
    }                                                                                                                  \
    [[maybe_unused]] static uint32_t Tarn_sys_diag_##type##_fixed_size() {                                             \
        return ::velto::FixedSize<Tarn_sys_diag_##type>();                                                             \
    }                                                                                                                  \
    }                                                                                                                  \
    template <>                                                                                                        \
    struct velto::Codec<Unit, Tarn_sys_diag_##type> {                                                                  \
        static constexpr auto kPack = Tarn_sys_diag_##type##_pack;                                                     \
        static constexpr auto kUnpack = Tarn_sys_diag_##type##_unpack;                                                 \
        [[maybe_unused]] static constexpr auto kUnpackNonRoot = Tarn_sys_diag_##type##_unpack_non_root;                \
        static constexpr auto kFreeUnpacked = Tarn_sys_diag_##type##_free_unpacked;                                    \
        static constexpr auto kPackFixed = Tarn_sys_diag_##type##_pack_fixed;                                          \
        static constexpr auto kFixedSize = Tarn_sys_diag_##type##_fixed_size;                                          \
    };

#include "velto/decode.h"
#include "velto/encode.h"
#include "velto/layout.h"
#include "velto/release.h"
#include "velto/shape.h"

namespace velto {

inline const char *Nullness(const void *pointer) {
    return pointer == nullptr ? "null" : "nonNull";
}

// What every encoder does before it writes. Null after a bad argument.
template <class Unit>
VELTO_FRAME uint8_t *BeginPack(const VeltoOutBuf *out, const void *record, const char *function) {
    const uint32_t capacity = out->puiBufLen == nullptr ? 0 : *out->puiBufLen;
    if (capacity < 4 || out->pucBuf == nullptr || record == nullptr) [[unlikely]] {
        Unit::binding.Log(platform::kInvalid, __LINE__, function, "[VELTO]:Param invalid(%s, %u, %s)",
                          Nullness(out->pucBuf), capacity, Nullness(record));
        return nullptr;
    }
    Unit::binding.EnsureMemBound();
    return out->pucBuf;
}

// What every encoder does when it has written.
template <class Unit>
VELTO_FRAME uint32_t FinishPack(uint8_t *message, const uint8_t *end, const TypeShape &type) {
    if (Unit::binding.Swapped()) [[unlikely]] {
        ReverseMessage(type, message);
    }
    return static_cast<uint32_t>(end - message);
}

template <class Unit, class Record>
[[gnu::always_inline]] inline uint32_t Pack(const VeltoOutBuf *out, const void *in, const char *function) {
    const auto *const record = static_cast<const Record *>(in);
    if (out == nullptr) {
        return record == nullptr ? 0 : RegularSize(*record);
    }
    uint8_t *const message = BeginPack<Unit>(out, in, function);
    return message == nullptr ? 0 : FinishPack<Unit>(message, WriteRegular(message, *record), Shape<Record>::kType);
}

// Decodes in the byte-swapped mode, fields and all.
template <class Unit>
[[gnu::cold, gnu::noinline]] Opened UnpackSwapped(Message message, void *record, const TypeShape &type,
                                                  const char *function) {
    OpenedTable table;
    if (!OpenTable<true>(Unit::binding, message, Load<uint32_t, true>(message.bytes), function, table)) {
        return Opened::kRefused;
    }
    Unit::binding.EnsureMemBound();
    memset(record, 0, type.size);
    TableDriven<true> decoder(Unit::binding, message);
    return decoder.DecodeFields(type, table, static_cast<uint8_t *>(record), function) ? Opened::kDone
                                                                                       : Opened::kFailed;
}

// Reads a message whose root table has the fixed or the full form; else false, and the record is as it was. Bad
// arguments are left to BeginUnpack, which has the words for them.
template <class Unit, class Record>
[[gnu::always_inline]] inline bool UnpackBlock(const Message &message, void *out) {
    const bool bad = message.bytes == nullptr || out == nullptr || static_cast<int32_t>(message.length) < 4;
    if (bad || Unit::binding.Swapped()) [[unlikely]] {
        return false;
    }
    auto &record = *static_cast<Record *>(out);
    const auto root = Load<uint32_t>(message.bytes);
    const bool fixed = root == 4; // the full form has its vtable there
    if (!(fixed ? DecodeBlock<Form::kFixed>(message, root, record) : DecodeBlock<Form::kFull>(message, root, record))) {
        return false;
    }
    Unit::binding.EnsureMemBound();
    return true;
}

// What every decoder does before it reads fields: checks the arguments, the root offset, the root table and its vtable,
// and clears the record.
template <class Unit, class Type>
VELTO_FRAME Opened BeginUnpack(const Message &message, void *out, const Type &type, const char *function,
                               OpenedTable &table) {
    const auto length = static_cast<int32_t>(message.length);
    if (message.bytes == nullptr || out == nullptr || length < 4) [[unlikely]] {
        Unit::binding.Log(platform::kInvalid, __LINE__, function, "[VELTO]:Param invalid(%s, %d, %s)",
                          Nullness(message.bytes), length, Nullness(out));
        return Opened::kRefused;
    }
    if (Unit::binding.Swapped()) [[unlikely]] {
        return UnpackSwapped<Unit>(message, out, type, function);
    }
    if (!OpenTableInFrame(Unit::binding, message, Load<uint32_t>(message.bytes), function, table)) [[unlikely]] {
        return Opened::kRefused;
    }
    Unit::binding.EnsureMemBound();
    auto *const record = static_cast<uint8_t *>(out);
    const bool straight = table.slotNum >= type.slotNum;
    const uint32_t from = straight ? type.clearFrom : 0;
    memset(record + from, 0, type.size - from);
    return straight ? Opened::kStraight : DecodeByShape<Unit>(message, type, table, record, function);
}

// What a decoder does when a field of a cleared record fails: the record is left zero, counts included.
[[gnu::cold, gnu::noinline]] inline void *Abandon(void *record, const TypeShape &type, VeltoFreeFn release) {
    if (release != nullptr) {
        release(record);
    }
    memset(record, 0, type.size);
    return nullptr;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *Unpack(const Message &message, void *out, const char *function) {
    if constexpr (kHasFull<Record>) {
        if (UnpackBlock<Unit, Record>(message, out)) [[likely]] {
            return out;
        }
    }
    OpenedTable table;
    const Opened opened = BeginUnpack<Unit>(message, out, FrameShape<Record>(), function, table);
    if (opened == Opened::kRefused) {
        return nullptr;
    }
    if (opened == Opened::kDone ||
        (opened == Opened::kStraight && DecodeFields<Unit>(message, table, *static_cast<Record *>(out), function)))
        [[likely]] {
        return out;
    }
    constexpr VeltoFreeFn kRelease = kOwns<Record> ? Codec<Unit, Record>::kFreeUnpacked : nullptr;
    return Abandon(out, Shape<Record>::kType, kRelease);
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *UnpackNonRoot(const Message &message, void *out, uint32_t position,
                                                  const char *function) {
    return DecodeNested<Unit>(message, position, *static_cast<Record *>(out), function) ? out : nullptr;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *FreeUnpacked(void *record, const char *function) {
    if constexpr (kOwns<Record>) {
        if (record != nullptr) {
            ReleaseMembers<Unit>(*static_cast<Record *>(record), function);
        }
    }
    return record;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline uint32_t PackFixed(uint8_t *message, const void *in) {
    if constexpr (kHasFixed<Record>) {
        Store<uint32_t>(message, 4);
        WriteBlock<Form::kFixed>(message + 4, *static_cast<const Record *>(in));
        FinishPack<Unit>(message, message, Shape<Record>::kType);
    }
    return 0;
}

template <class Record>
constexpr uint32_t FixedSize() {
    if constexpr (kHasFixed<Record>) {
        return kFixedSize<Record>;
    } else {
        return 0;
    }
}

} // namespace velto
