#include "tests/codec/record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <stdexcept>

using velto::Kind;

namespace {
template <class Value>
Value Get(const uint8_t *record, size_t offset) {
    Value value;
    memcpy(&value, record + offset, sizeof value);
    return value;
}

uint64_t GetScalar(const uint8_t *at, size_t width) {
    uint64_t value = 0;
    memcpy(&value, at, width); // little-endian, as all targets are
    return value;
}

void SetScalar(uint8_t *at, size_t width, const Json &json) {
    const auto value = json.get<uint64_t>();
    memcpy(at, &value, width);
}

template <class Pointer>
void SetPointer(uint8_t *record, size_t offset, Pointer *pointer) {
    memcpy(record + offset, &pointer, sizeof pointer);
}
} // namespace

std::string ToHex(const uint8_t *bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

Bytes FromHex(std::string_view text) {
    const auto digit = [](char c) { return static_cast<uint8_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10); };
    Bytes bytes(text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(digit(text[2 * i]) << 4 | digit(text[2 * i + 1]));
    }
    return bytes;
}

const Type &FindType(std::string_view name) {
    for (const Type &type : velto::Registry()) {
        if (name == type.name) {
            return type;
        }
    }
    throw std::runtime_error("no type has the name " + std::string(name));
}

namespace {
const Type &TypeOf(const velto::TypeShape &shape) {
    for (const Type &type : velto::Registry()) {
        if (type.shape == &shape) {
            return type;
        }
    }
    throw std::runtime_error("no type has this shape");
}

std::vector<Slot> MakeSlots(const Type &type) {
    std::vector<Slot> slots;
    for (size_t i = 0; i < type.shape->slotNum; ++i) {
        const velto::SlotShape &shape = type.shape->Slot(i);
        Slot slot{type.slotNames[i].member, shape.kind, shape.width, shape.offset, 0, 0, nullptr};
        (velto::IsVectorKind(shape.kind) ? slot.countOffset : slot.length) = shape.length;
        if (velto::IsTableKind(shape.kind)) {
            slot.table = &TypeOf(*type.shape->Element(shape).type);
        }
        slots.push_back(slot);
    }
    return slots;
}
} // namespace

const std::vector<Slot> &SlotsOf(const Type &type) {
    static std::map<const Type *, std::vector<Slot>> known;
    auto [entry, isNew] = known.try_emplace(&type);
    if (isNew) {
        entry->second = MakeSlots(type);
    }
    return entry->second;
}

std::string FunctionName(const Type &type, const char *operation) {
    return std::string("Tarn_sys_diag_") + type.name + operation;
}

Record::Record(const Type &type, const Json &json) {
    uint8_t *const record = New(type.shape->size);
    Fill(type, record, json);
}

uint8_t *Record::New(size_t size) {
    return blocks_.emplace_back(size).data();
}

void Record::Fill(const Type &type, uint8_t *record, const Json &json) {
    for (const Slot &slot : SlotsOf(type)) {
        FillSlot(slot, record, json.at(slot.name));
    }
}

void Record::FillSlot(const Slot &slot, uint8_t *record, const Json &json) {
    uint8_t *const member = record + slot.offset;
    const auto array = [&](uint8_t *to) {
        for (const Json &element : json) {
            SetScalar(to, slot.width, element);
            to += slot.width;
        }
    };
    const auto tables = [&](uint8_t *to) {
        for (const Json &element : json) {
            Fill(*slot.table, to, element);
            to += slot.table->shape->size;
        }
    };
    const auto vector = [&](size_t count, size_t width) {
        uint8_t *const elements = New(count * width);
        const auto number = static_cast<uint32_t>(count);
        memcpy(record + slot.countOffset, &number, sizeof number);
        SetPointer(record, slot.offset, elements);
        return elements;
    };
    if (json.is_null()) {
        return; // the record is zero
    }
    switch (slot.kind) {
    case Kind::kScalar:
        SetScalar(member, slot.width, json);
        break;
    case Kind::kTable:
        Fill(*slot.table, member, json);
        break;
    case Kind::kTableRun:
        tables(member);
        break;
    case Kind::kArray64:
        array(member);
        break;
    case Kind::kBytes: {
        const Bytes bytes = FromHex(json.get<std::string>());
        std::copy(bytes.begin(), bytes.end(), member);
        break;
    }
    case Kind::kString: {
        const Bytes bytes = FromHex(json.get<std::string>());
        uint8_t *const text = New(bytes.size() + 1);
        std::copy(bytes.begin(), bytes.end(), text);
        SetPointer(record, slot.offset, text);
        break;
    }
    case Kind::kByteVector: {
        const Bytes bytes = FromHex(json.get<std::string>());
        std::copy(bytes.begin(), bytes.end(), vector(bytes.size(), 1));
        break;
    }
    case Kind::kVector32:
        array(vector(json.size(), slot.width));
        break;
    case Kind::kTableVector:
        tables(vector(json.size(), slot.table->shape->size));
        break;
    case Kind::kUnsupported:
        throw std::runtime_error("a slot of an unsupported kind");
    }
}

namespace {
Json SlotToJson(const Slot &slot, const uint8_t *record) {
    const uint8_t *const member = record + slot.offset;
    const auto array = [&](const uint8_t *from, uint32_t count) {
        auto list = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            list.push_back(GetScalar(from + size_t{slot.width} * i, slot.width));
        }
        return list;
    };
    const auto tables = [&](const uint8_t *from, uint32_t count) {
        auto list = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            list.push_back(ToJson(*slot.table, from + size_t{slot.table->shape->size} * i));
        }
        return list;
    };
    switch (slot.kind) {
    case Kind::kScalar:
        return GetScalar(member, slot.width);
    case Kind::kTable:
        return ToJson(*slot.table, member);
    case Kind::kTableRun:
        return tables(member, slot.length);
    case Kind::kArray64:
        return array(member, slot.length);
    case Kind::kBytes:
        return ToHex(member, slot.length);
    default:
        break;
    }
    const auto *const pointer = Get<const uint8_t *>(record, slot.offset);
    if (slot.kind == Kind::kString) {
        return pointer == nullptr ? Json() : Json(ToHex(pointer, strlen(reinterpret_cast<const char *>(pointer))));
    }
    const auto count = Get<uint32_t>(record, slot.countOffset);
    if (pointer == nullptr) {
        return count == 0 ? Json() : Json("null pointer with count " + std::to_string(count));
    }
    switch (slot.kind) {
    case Kind::kByteVector:
        return ToHex(pointer, count);
    case Kind::kVector32:
        return array(pointer, count);
    default:
        return tables(pointer, count);
    }
}
} // namespace

Json ToJson(const Type &type, const void *record) {
    auto json = Json::object();
    for (const Slot &slot : SlotsOf(type)) {
        json[slot.name] = SlotToJson(slot, static_cast<const uint8_t *>(record));
    }
    return json;
}

Json AbsentSlot(const Slot &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return uint64_t{0};
    case Kind::kBytes:
        return std::string(size_t{2} * slot.length, '0');
    case Kind::kArray64:
        return Json(std::vector<uint64_t>(slot.length));
    case Kind::kTable:
        return AbsentTable(*slot.table);
    case Kind::kTableRun:
        return Json(std::vector<Json>(slot.length, AbsentTable(*slot.table)));
    default:
        return {};
    }
}

Json AbsentTable(const Type &type) {
    auto json = Json::object();
    for (const Slot &slot : SlotsOf(type)) {
        json[slot.name] = AbsentSlot(slot);
    }
    return json;
}

Json RecordOf(const Type &type, const Json &members) {
    Json json = AbsentTable(type);
    for (const auto &[name, value] : members.items()) {
        json.at(name) = value;
    }
    return json;
}

namespace {
class RecordMaker {
public:
    RecordMaker(std::mt19937 &random, Filling filling) : random_(random), full_(filling == Filling::kFull) {}

    Json Make(const Type &type) {
        auto json = Json::object();
        for (const Slot &slot : SlotsOf(type)) {
            json[slot.name] = MakeSlot(slot);
        }
        return json;
    }

private:
    bool Chance(uint32_t percent) { return !full_ && random_() % 100 < percent; }

    Json MakeSlot(const Slot &slot) {
        switch (slot.kind) {
        case Kind::kScalar:
            return Chance(30) ? uint64_t{0} : MakeScalar(slot.width);
        case Kind::kTable:
            return Make(*slot.table);
        case Kind::kTableRun:
            return MakeList(slot.length, [&] { return Make(*slot.table); });
        case Kind::kArray64:
            return MakeList(slot.length, [&] { return Chance(30) ? uint64_t{0} : MakeScalar(8); });
        case Kind::kBytes:
            return MakeText(slot.length, Chance(30) ? 0 : 0xFF);
        case Kind::kString:
            return Chance(25) ? Json() : Json(MakeText(full_ ? 5 : random_() % 40, 0x7F));
        default:
            break;
        }
        if (Chance(25)) {
            return {};
        }
        const uint32_t count = full_ ? 2 : 1 + static_cast<uint32_t>(random_() % 3);
        if (slot.kind == Kind::kByteVector) {
            return MakeText(count, 0xFF);
        }
        return MakeList(count,
                        [&] { return slot.table != nullptr ? Make(*slot.table) : Json(MakeScalar(slot.width)); });
    }

    template <class Element>
    Json MakeList(uint32_t count, Element element) {
        auto list = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            list.push_back(element());
        }
        return list;
    }

    // No byte is 0, so that a byte lost or moved shows.
    uint64_t MakeScalar(uint32_t width) {
        uint64_t value = 0;
        for (uint32_t i = 0; i < width; ++i) {
            value = value << 8 | (1 + random_() % 255);
        }
        return value;
    }

    std::string MakeText(size_t length, uint8_t largest) {
        Bytes bytes(length);
        for (uint8_t &byte : bytes) {
            byte = largest == 0 ? uint8_t{0} : static_cast<uint8_t>(1 + random_() % largest);
        }
        return ToHex(bytes.data(), bytes.size());
    }

    std::mt19937 &random_;
    bool full_;
};
} // namespace

Json RandomRecord(const Type &type, std::mt19937 &random, Filling filling) {
    return RecordMaker(random, filling).Make(type);
}

Bytes Encode(const Type &type, const Json &json) {
    const Record record(type, json);
    const uint32_t size = type.pack(nullptr, record.get());
    const Block block(size, 0xAA);
    uint32_t capacity = size;
    const VeltoOutBuf out{block.data(), &capacity};
    const uint32_t written = type.pack(&out, record.get());
    EXPECT_EQ(written, size) << type.name << ": the size query and the writer differ";
    EXPECT_EQ(capacity, size) << type.name << ": the encoder wrote the capacity";
    return written == size ? Bytes(block.data(), block.data() + size) : Bytes();
}

Bytes EncodeFixed(const Type &type, const Json &json, uint8_t fill) {
    const Record record(type, json);
    const Block block(type.fixedSize(), fill);
    EXPECT_EQ(type.packFixed(block.data(), record.get()), 0U) << type.name;
    return Bytes(block.data(), block.data() + block.size);
}

Decoded::Decoded(const Type &type, const uint8_t *message, uint32_t length)
    : type_(type), record_(type.shape->size, kFill) {
    void *const result = type.unpack(message, length, record_.data());
    accepted_ = result != nullptr;
    EXPECT_TRUE(!accepted_ || result == record_.data()) << type.name << ": the decoder returned another record";
}

bool Decoded::Holds(uint8_t fill) const {
    return std::all_of(record_.data(), record_.data() + record_.size, [&](uint8_t byte) { return byte == fill; });
}

void Decoded::Release() {
    if (accepted_ && !released_) {
        released_ = true;
        EXPECT_EQ(type_.freeUnpacked(record_.data()), record_.data());
    }
}
