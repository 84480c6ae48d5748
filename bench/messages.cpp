#include "bench/messages.h"

#include <bit>
#include <cstring>
#include <random>
#include <stdexcept>

#include "bench/types.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace bench {

using velto::Kind;
using velto::SlotShape;
using velto::TypeShape;

const velto::TypeInfo &FindType(const std::string &name) {
    for (const velto::TypeInfo &type : velto::Registry()) {
        if (name == type.name) {
            return type;
        }
    }
    throw std::runtime_error("no type has the name " + name);
}

const velto::TypeInfo &TypeOf(const TypeShape &shape) {
    for (const velto::TypeInfo &type : velto::Registry()) {
        if (type.shape == &shape) {
            return type;
        }
    }
    throw std::runtime_error("no type has this shape");
}

uint8_t *Record::New(size_t size) {
    memory.push_back(std::make_unique<uint64_t[]>((size + 7) / 8));
    return reinterpret_cast<uint8_t *>(memory.back().get());
}

namespace {

template <class Value>
Value Get(const uint8_t *record, size_t offset) {
    Value value;
    memcpy(&value, record + offset, sizeof value);
    return value;
}

class Maker {
public:
    Maker(const MessageSpec &spec, std::mt19937_64 &random) : spec_(spec), random_(random) {}

    Record Make(const TypeShape &type) {
        Fill(type, record_.New(type.size));
        return std::move(record_);
    }

private:
    // Numbers of all magnitudes: systems that store small ones in fewer bytes find some.
    uint64_t Number(uint32_t width) {
        if (random_() % 100 < spec_.zeroPercent) {
            return 0;
        }
        const uint64_t value = (random_() >> (64 - 8 * width)) >> random_() % (8 * width);
        return value == 0 ? 1 : value;
    }

    void FillNumbers(uint8_t *to, size_t count, uint32_t width) {
        for (; count != 0; --count, to += width) {
            const uint64_t value = Number(width);
            memcpy(to, &value, width);
        }
    }

    void FillText(uint8_t *to, size_t length) {
        for (size_t i = 0; i < length; ++i) {
            to[i] = static_cast<uint8_t>('a' + random_() % 26);
        }
    }

    void FillTables(const TypeShape &type, uint8_t *to, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            Fill(type, to + size_t{type.size} * i);
        }
    }

    uint8_t *NewBlock(uint8_t *record, const SlotShape &slot, size_t size) {
        uint8_t *const block = record_.New(size);
        record_.blockSizes.push_back(size);
        memcpy(record + slot.offset, &block, sizeof block);
        return block;
    }

    uint8_t *NewElements(uint8_t *record, const SlotShape &slot, size_t width) {
        memcpy(record + slot.length, &spec_.elementNum, sizeof spec_.elementNum);
        return NewBlock(record, slot, spec_.elementNum * width);
    }

    void Fill(const TypeShape &type, uint8_t *record) {
        for (uint32_t i = 0; i < type.slotNum; ++i) {
            FillSlot(type, type.Slot(i), record);
        }
    }

    void FillSlot(const TypeShape &type, const SlotShape &slot, uint8_t *record) {
        uint8_t *const member = record + slot.offset;
        switch (slot.kind) {
        case Kind::kScalar:
            return FillNumbers(member, 1, slot.width);
        case Kind::kBytes:
            record_.arrayBytes += slot.length;
            return FillText(member, slot.length);
        case Kind::kArray64:
            record_.arrayBytes += size_t{8} * slot.length;
            return FillNumbers(member, slot.length, 8);
        case Kind::kTable:
            return Fill(*type.Element(slot).type, member);
        case Kind::kTableRun:
            return FillTables(*type.Element(slot).type, member, slot.length);
        case Kind::kString: {
            uint8_t *const text = NewBlock(record, slot, kTextLength + 1);
            record_.text = reinterpret_cast<const char *>(text);
            return FillText(text, kTextLength);
        }
        case Kind::kByteVector:
            return FillText(NewElements(record, slot, 1), spec_.elementNum);
        case Kind::kVector32:
            return FillNumbers(NewElements(record, slot, 4), spec_.elementNum, 4);
        case Kind::kTableVector: {
            const TypeShape &element = *type.Element(slot).type;
            return FillTables(element, NewElements(record, slot, element.size), spec_.elementNum);
        }
        case Kind::kUnsupported:
            break;
        }
        throw std::runtime_error("a slot of an unsupported kind");
    }

    const MessageSpec &spec_;
    std::mt19937_64 &random_;
    Record record_;
};

bool EqualRecords(const TypeShape &type, const uint8_t *left, const uint8_t *right);

bool EqualTables(const TypeShape &type, const uint8_t *left, const uint8_t *right, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (!EqualRecords(type, left + size_t{type.size} * i, right + size_t{type.size} * i)) {
            return false;
        }
    }
    return true;
}

bool EqualVectors(const TypeShape &type, const SlotShape &slot, const uint8_t *left, const uint8_t *right) {
    const auto count = Get<uint32_t>(left, slot.length);
    if (count != Get<uint32_t>(right, slot.length)) {
        return false;
    }
    left = Get<const uint8_t *>(left, slot.offset);
    right = Get<const uint8_t *>(right, slot.offset);
    return slot.kind == Kind::kTableVector ? EqualTables(*type.Element(slot).type, left, right, count)
                                           : memcmp(left, right, size_t{count} * slot.width) == 0;
}

bool EqualSlots(const TypeShape &type, const SlotShape &slot, const uint8_t *left, const uint8_t *right) {
    const uint8_t *const leftMember = left + slot.offset;
    const uint8_t *const rightMember = right + slot.offset;
    switch (slot.kind) {
    case Kind::kScalar:
        return memcmp(leftMember, rightMember, slot.width) == 0;
    case Kind::kBytes:
    case Kind::kArray64:
        return memcmp(leftMember, rightMember, size_t{slot.length} * slot.width) == 0;
    case Kind::kTable:
        return EqualRecords(*type.Element(slot).type, leftMember, rightMember);
    case Kind::kTableRun:
        return EqualTables(*type.Element(slot).type, leftMember, rightMember, slot.length);
    case Kind::kString:
        return strcmp(Get<const char *>(left, slot.offset), Get<const char *>(right, slot.offset)) == 0;
    default:
        return EqualVectors(type, slot, left, right);
    }
}

bool EqualRecords(const TypeShape &type, const uint8_t *left, const uint8_t *right) {
    for (uint32_t i = 0; i < type.slotNum; ++i) {
        if (!EqualSlots(type, type.Slot(i), left, right)) {
            return false;
        }
    }
    return true;
}

} // namespace

Message MakeMessage(const MessageSpec &spec) {
    const TypeShape &type = *FindType(spec.type).shape;
    Message message{spec, type.size, {}};
    std::mt19937_64 random(20);
    for (uint32_t i = 0; i < spec.poolSize; ++i) {
        message.records.push_back(Maker(spec, random).Make(type));
    }
    return message;
}

bool FitsNanopb(const Message &message) {
    const Record &record = message.records.front();
    size_t size = message.recordSize;
    for (const size_t blockSize : record.blockSizes) {
        size += record.text == nullptr ? blockSize : 0;
    }
    return size < 60 * 1024; // leaves room for nanopb's own words
}

bool Equal(const char *type, const void *left, const void *right) {
    return EqualRecords(*FindType(type).shape, static_cast<const uint8_t *>(left), static_cast<const uint8_t *>(right));
}

} // namespace bench
