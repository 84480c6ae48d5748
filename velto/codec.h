// The codec functions of a type: what the runtime calls. A source file that includes this one, says TARN_UNIT() and
// then includes headers of types/ gets, for each type, functions of its own under the names that the log shows.
#pragma once

#include "platform/rpc.h"

#ifndef VELTO_ON_TABLE
#define VELTO_ON_TABLE(type) VELTO_CODECS(type)
#endif

// A unit's functions for one type; what the unit does not use is not compiled.
#define VELTO_CODECS(type)                                                                                             \
    extern "C" {                                                                                                       \
    [[maybe_unused]] static uint32_t Tarn_sys_diag_##type##_pack(const VeltoOutBuf *out, const void *record) {         \
        return ::velto::Pack<Unit, Tarn_sys_diag_##type>(out, record);                                                 \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_unpack(const uint8_t *bytes, uint32_t length, void *record) { \
        return ::velto::Unpack<Unit, Tarn_sys_diag_##type>(bytes, length, record);                                     \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_unpack_non_root(const uint8_t *bytes, uint32_t length,        \
                                                                         void *record, uint32_t position) {            \
        return ::velto::UnpackNonRoot<Unit, Tarn_sys_diag_##type>(bytes, length, record, position);                    \
    }                                                                                                                  \
    [[maybe_unused]] static void *Tarn_sys_diag_##type##_free_unpacked(void *record) {                                 \
        return ::velto::FreeUnpacked<Unit, Tarn_sys_diag_##type>(record);                                              \
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
        static constexpr auto kUnpackNonRoot = Tarn_sys_diag_##type##_unpack_non_root;                                 \
        static constexpr auto kFreeUnpacked = Tarn_sys_diag_##type##_free_unpacked;                                    \
        static constexpr auto kPackFixed = Tarn_sys_diag_##type##_pack_fixed;                                          \
        static constexpr auto kFixedSize = Tarn_sys_diag_##type##_fixed_size;                                          \
    };

#include "velto/decode.h"
#include "velto/encode.h"
#include "velto/fixed.h"
#include "velto/release.h"
#include "velto/shape.h"

namespace velto {

inline const char *Nullness(const void *pointer) {
    return pointer == nullptr ? "null" : "nonNull";
}

template <class Unit, class Record>
[[gnu::always_inline]] inline uint32_t Pack(const VeltoOutBuf *out, const void *in) {
    const auto *const record = static_cast<const Record *>(in);
    if (out == nullptr) {
        return record == nullptr ? 0 : RegularSize(*record);
    }
    const uint32_t capacity = out->puiBufLen == nullptr ? 0 : *out->puiBufLen;
    uint8_t *const message = out->pucBuf;
    if (capacity < 4 || message == nullptr || record == nullptr) {
        Unit::binding.Log(platform::kInvalid, __LINE__, Table<Record>::kPack, "[VELTO]:Param invalid(%s, %u, %s)",
                          Nullness(message), capacity, Nullness(record));
        return 0;
    }
    Unit::binding.EnsureMemBound();
    const auto size = static_cast<uint32_t>(WriteRegular(message, *record) - message);
    if (Unit::binding.Swapped()) [[unlikely]] {
        ReverseMessage(Shape<Record>::kType, message);
    }
    return size;
}

// What a decoder checks before it clears the record: the arguments, the root offset, the root table and its vtable.
template <bool kSwapped>
bool OpenRoot(platform::Binding &binding, const Message &message, uint32_t slotNum, uint8_t *padding,
              const char *function, OpenedTable &table) {
    const auto root = Load<uint32_t, kSwapped>(message.bytes);
    return OpenTable<kSwapped>(binding, message, root, slotNum, padding, function, table);
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *Unpack(const uint8_t *bytes, uint32_t length, void *out) {
    constexpr auto &kFunction = Table<Record>::kUnpack;
    const auto signedLength = static_cast<int32_t>(length);
    if (bytes == nullptr || out == nullptr || signedLength < 4) {
        Unit::binding.Log(platform::kInvalid, __LINE__, kFunction, "[VELTO]:Param invalid(%s, %d, %s)", Nullness(bytes),
                          signedLength, Nullness(out));
        return nullptr;
    }
    const bool swapped = Unit::binding.Swapped();
    const Message message{bytes, length};
    OpenedTable table;
    uint8_t padding[2 * kSlotNum<Record> + 1];
    if (!(swapped ? OpenRoot<true> : OpenRoot<false>)(Unit::binding, message, kSlotNum<Record>, padding, kFunction,
                                                      table)) {
        return nullptr;
    }
    Unit::binding.EnsureMemBound();
    auto &record = *static_cast<Record *>(out);
    memset(out, 0, kNativeSize<Record>);
    if (swapped ? ReversedDecoder(Unit::binding, message)
                      .DecodeFields(Shape<Record>::kType, table, static_cast<uint8_t *>(out), kFunction)
                : DecodeFields<Unit>(message, table, record, kFunction)) [[likely]] {
        return out;
    }
    Codec<Unit, Record>::kFreeUnpacked(out);
    memset(out, 0, kNativeSize<Record>);
    return nullptr;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *UnpackNonRoot(const uint8_t *bytes, uint32_t length, void *out, uint32_t position) {
    auto &record = *static_cast<Record *>(out);
    return DecodeTable<Unit>({bytes, length}, position, record, Table<Record>::kUnpackNonRoot) ? out : nullptr;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline void *FreeUnpacked(void *record) {
    if constexpr (kOwns<Record>) {
        if (record != nullptr) {
            Unit::binding.EnsureMemBound();
            ReleaseMembers<Unit>(*static_cast<Record *>(record), Table<Record>::kFreeUnpacked);
        }
    }
    return record;
}

template <class Unit, class Record>
[[gnu::always_inline]] inline uint32_t PackFixed(uint8_t *message, const void *in) {
    if constexpr (kHasFixed<Record>) {
        Store<uint32_t>(message, 4);
        WriteFixedTable(message + 4, *static_cast<const Record *>(in));
        if (Unit::binding.Swapped()) [[unlikely]] {
            ReverseMessage(Shape<Record>::kType, message);
        }
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
