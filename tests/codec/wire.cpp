#include "tests/codec/wire.h"

using velto::Kind;

namespace {
class LayoutReader {
public:
    explicit LayoutReader(const Bytes &message) : message_(message) {}

    Layout Read(const Type &type) {
        ReadTable(type, static_cast<size_t>(Number(0, 4)), Json::json_pointer());
        return std::move(layout_);
    }

private:
    uint64_t Number(size_t at, size_t width) {
        layout_.numbers.push_back({at, width});
        return ReadNumber(message_, at, width);
    }

    void ReadTable(const Type &type, size_t table, const Json::json_pointer &path) {
        const auto distance = static_cast<int32_t>(Number(table, 4));
        const size_t vtable = static_cast<size_t>(static_cast<int64_t>(table) - distance);
        layout_.tables.push_back({&type, table, vtable, path});
        Number(vtable, 2);
        Number(vtable + 2, 2);
        size_t entry = vtable + 4;
        for (const Slot &slot : SlotsOf(type)) {
            const auto offset = static_cast<size_t>(Number(entry, 2));
            entry += 2;
            if (offset != 0) {
                ReadField(slot, table + offset, path / slot.name);
            }
        }
    }

    void ReadField(const Slot &slot, size_t field, const Json::json_pointer &path) {
        if (slot.kind == Kind::kScalar) {
            Number(field, slot.width);
            return;
        }
        const size_t data = field + static_cast<size_t>(Number(field, 4));
        if (slot.kind == Kind::kTable) {
            ReadTable(*slot.table, data, path);
            return;
        }
        const auto count = static_cast<size_t>(Number(data, 4));
        switch (slot.kind) {
        case Kind::kString:
            layout_.bytes.push_back({data + 4, count + 1});
            break;
        case Kind::kBytes:
        case Kind::kByteVector:
            layout_.bytes.push_back({data + 4, count});
            break;
        default:
            for (size_t i = 0; i < count; ++i) {
                if (slot.table == nullptr) {
                    Number(data + 4 + slot.width * i, slot.width);
                } else {
                    const size_t word = data + 4 + 4 * i;
                    ReadTable(*slot.table, word + static_cast<size_t>(Number(word, 4)), path / i);
                }
            }
        }
    }

    const Bytes &message_;
    Layout layout_;
};
} // namespace

Layout ReadLayout(const Type &type, const Bytes &message) {
    return LayoutReader(message).Read(type);
}
