#include "host/describe/codec.h"

#include <new>
#include <string>

#include "host/describe/record.h"
#include "velto/shape.h"

TARN_UNIT()

namespace host::describe {

namespace {

using velto::Store;

constexpr const char *kTag = "tarn_host_describe";

bool IsTable(const Slot &slot) {
    return slot.table != nullptr;
}

uint32_t VtableSize(const Type &type) {
    return 4 + 2 * static_cast<uint32_t>(type.slots.size());
}

// What a slot's offset word leads to.
struct Content {
    const uint8_t *first; // null: the slot is absent
    uint64_t count;
};

Content ContentOf(const Slot &slot, const uint8_t *record) {
    if (slot.kind == Kind::kString) {
        const auto *const text = LoadMember<const char *>(record, slot.offset);
        return {reinterpret_cast<const uint8_t *>(text), text == nullptr ? 0 : strlen(text)};
    }
    const Elements elements = ElementsOf(slot, record);
    return {elements.count == 0 ? nullptr : elements.first, elements.count};
}

uint64_t TableSize(const Type &type, const uint8_t *record);

// The bytes behind a present slot's offset word.
uint64_t DataSize(const Slot &slot, const Content &content) {
    if (!IsTable(slot)) {
        return 4 + content.count * slot.width + (slot.kind == Kind::kString ? 1 : 0);
    }
    uint64_t size = slot.kind == Kind::kTable ? 0 : 4 + 4 * content.count;
    for (uint64_t i = 0; i < content.count; ++i) {
        size += TableSize(*slot.table, content.first + i * slot.table->size);
    }
    return size;
}

uint64_t TableSize(const Type &type, const uint8_t *record) {
    uint64_t size = VtableSize(type) + 4;
    for (const Slot &slot : type.slots) {
        if (slot.kind == Kind::kScalar) {
            size += LoadScalar(record + slot.offset, slot.width) == 0 ? 0 : slot.width;
        } else if (const Content content = ContentOf(slot, record); content.first != nullptr) {
            size += 4 + DataSize(slot, content);
        }
    }
    return size;
}

uint8_t *WriteTable(const Type &type, const uint8_t *record, uint8_t *vtable);

// Writes what a present slot's offset word leads to. Returns the end of what it wrote, as WriteTable does.
uint8_t *WriteData(const Slot &slot, const Content &content, uint8_t *at) {
    if (slot.kind == Kind::kTable) {
        return WriteTable(*slot.table, content.first, at);
    }
    Store(at, static_cast<uint32_t>(content.count));
    at += 4;
    if (!IsTable(slot)) {
        const size_t size = static_cast<size_t>(content.count) * slot.width + (slot.kind == Kind::kString ? 1 : 0);
        memcpy(at, content.first, size);
        return at + size;
    }
    uint8_t *word = at;
    at += 4 * content.count;
    for (uint64_t i = 0; i < content.count; ++i, word += 4) {
        Store(word, static_cast<uint32_t>(at + VtableSize(*slot.table) - word));
        at = WriteTable(*slot.table, content.first + i * slot.table->size, at);
    }
    return at;
}

// A table stands behind its vtable: the scalars that are not 0, a word for each present reference, then what the words
// lead to.
uint8_t *WriteTable(const Type &type, const uint8_t *record, uint8_t *vtable) {
    uint8_t *const table = vtable + VtableSize(type);
    uint8_t *at = table + 4;
    std::vector<std::pair<size_t, Content>> references;
    memset(vtable, 0, VtableSize(type));
    const auto enter = [&](size_t index) { Store(vtable + 4 + 2 * index, static_cast<uint16_t>(at - table)); };
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        if (slot.kind != Kind::kScalar) {
            if (const Content content = ContentOf(slot, record); content.first != nullptr) {
                references.emplace_back(i, content);
            }
        } else if (LoadScalar(record + slot.offset, slot.width) != 0) {
            enter(i);
            memcpy(at, record + slot.offset, slot.width);
            at += slot.width;
        }
    }
    uint8_t *data = at + 4 * references.size();
    for (const auto &[index, content] : references) {
        const Slot &slot = type.slots[index];
        enter(index);
        Store(at, static_cast<uint32_t>(data - at) + (slot.kind == Kind::kTable ? VtableSize(*slot.table) : 0));
        data = WriteData(slot, content, data);
        at += 4;
    }
    Store(vtable, static_cast<uint16_t>(VtableSize(type)));
    Store(vtable + 2, static_cast<uint16_t>(data - table));
    Store(table, VtableSize(type));
    return data;
}

void WriteFixedTable(const Type &type, const uint8_t *record, uint8_t *table);

// A field behind its offset word.
void WriteFixedData(const Slot &slot, const uint8_t *member, uint8_t *at) {
    if (slot.kind == Kind::kTable) {
        WriteFixedTable(*slot.table, member, at);
        return;
    }
    Store(at, slot.length);
    if (!IsTable(slot)) {
        memcpy(at + 4, member, size_t{slot.length} * slot.width);
        return;
    }
    for (uint32_t i = 0; i < slot.length; ++i) {
        uint8_t *const word = at + 4 + size_t{4} * i;
        uint8_t *const element = at + 4 + size_t{4} * slot.length + size_t{slot.table->fixed->ElementSize()} * i;
        Store(word, static_cast<uint32_t>(element - word));
        WriteFixedTable(*slot.table, member + size_t{slot.table->size} * i, element);
    }
}

void WriteFixedTable(const Type &type, const uint8_t *record, uint8_t *table) {
    const FixedForm &form = *type.fixed;
    uint8_t *const vtable = table + form.vtable;
    Store(table, 0 - form.vtable);
    Store(vtable, static_cast<uint16_t>(VtableSize(type)));
    Store(vtable + 2, static_cast<uint16_t>(form.dataEnd));
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        uint8_t *const field = table + form.offsets[i];
        Store(vtable + 4 + 2 * i, static_cast<uint16_t>(form.offsets[i]));
        if (slot.kind == Kind::kScalar) {
            memcpy(field, record + slot.offset, slot.width);
        } else {
            Store(field, uint32_t{4});
            WriteFixedData(slot, record + slot.offset, field + 4);
        }
    }
}

void ReleaseBlock(const Slot &slot, void *record) {
    Unit::binding.EnsureMemBound();
    Unit::binding.Free(LoadMember<void *>(record, slot.offset), kTag);
    StoreMember<void *>(record, slot.offset, nullptr);
}

} // namespace

uint64_t RegularSize(const Type &type, const void *record) {
    return 4 + TableSize(type, static_cast<const uint8_t *>(record));
}

void WriteRegular(const Type &type, const void *record, uint8_t *message) {
    Store(message, 4 + VtableSize(type));
    WriteTable(type, static_cast<const uint8_t *>(record), message + 4);
}

void WriteFixed(const Type &type, const void *record, uint8_t *message) {
    Store(message, uint32_t{4});
    WriteFixedTable(type, static_cast<const uint8_t *>(record), message + 4);
}

bool Read(const Type &type, std::span<const uint8_t> bytes, void *record) {
    if (bytes.size() > INT32_MAX) {
        return false;
    }
    Unit::binding.EnsureMemBound();
    const std::string function = std::string("Tarn_sys_diag_") + type.name + "_unpack";
    const velto::Message message{bytes.data(), static_cast<uint32_t>(bytes.size())};
    if (message.length < 4) {
        Unit::binding.Log(platform::kInvalid, __LINE__, function.c_str(), "[VELTO]:Param invalid(%s, %u, nonNull)",
                          message.bytes == nullptr ? "null" : "nonNull", message.length);
        return false;
    }
    velto::OpenedTable table;
    return velto::OpenTable(Unit::binding, message, velto::Load<uint32_t>(message.bytes), function.c_str(), table) &&
           velto::TableDriven<false>(Unit::binding, message)
               .DecodeFields(*type.shape, table, static_cast<uint8_t *>(record), function.c_str());
}

void Release(const Type &type, void *record) {
    for (const Slot &slot : type.slots) {
        if (IsTable(slot) && !slot.table->fixed) {
            const Elements elements = ElementsOf(slot, record);
            for (uint32_t i = 0; i < elements.count; ++i) {
                Release(*slot.table, elements.first + size_t{i} * elements.size);
            }
        }
        if (slot.kind == Kind::kString || velto::IsVectorKind(slot.kind)) {
            ReleaseBlock(slot, record);
        }
    }
}

void *AllocateOwned(uint64_t size) {
    Unit::binding.EnsureMemBound();
    void *const block = size > UINT32_MAX ? nullptr : Unit::binding.Alloc(static_cast<uint32_t>(size), kTag);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return memset(block, 0, static_cast<size_t>(size));
}

} // namespace host::describe
