#include "host/describe/explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/describe/json.h"
#include "host/osal/text.h"
#include "velto/bytes.h"

namespace host::describe {

namespace {

constexpr size_t kMostNotes = 1 << 18; // tables may share bytes, so a small message can have a great many

struct Step {
    const char *member; // null for an element
    uint32_t index;
};

std::string PathText(const std::vector<Step> &path) {
    std::string text;
    for (const Step &step : path) {
        text += step.member == nullptr ? fmt::format("[{}]", step.index)
                                       : (text.empty() ? "" : ".") + std::string(step.member);
    }
    return text;
}

std::string Expected(uint64_t least, uint64_t most) {
    return least > most    ? "but no value fits there"
           : least == most ? fmt::format("expected {}", least)
                           : fmt::format("expected {} to {}", least, most);
}

// Positions are kept in 64 bits, in which no sum of wire values wraps.
class Walker {
public:
    Walker(std::span<const uint8_t> message, bool notes) : message_(message), wantNotes_(notes) {}

    void WalkMessage(const Type &type) {
        const uint32_t root = Word(0);
        AddNote(0, 4, [&] { return fmt::format("root offset: the table is at {}", root); });
        WalkTable(type, 0, root, "_unpack");
    }

    Explanation Take() {
        std::stable_sort(explanation_.notes.begin(), explanation_.notes.end(),
                         [](const Note &left, const Note &right) { return left.at < right.at; });
        return std::move(explanation_);
    }

private:
    // The table at `position`, which the word at `from` leads to.
    bool WalkTable(const Type &type, uint64_t from, uint32_t position, const char *suffix) {
        const Function caller = std::exchange(function_, {type.name, suffix});
        const uint64_t size = message_.size();
        if (position < 4 || position > size - 4) {
            return Refuse(Check::kTable, from, position, 4, size - 4, "the table's position",
                          fmt::format("(22) [VELTO]:Table offset({}) is out of range(4 - {})", position, size));
        }
        const uint32_t vtable = position - Word(position); // wraps as in the decoders: the distance is signed
        if (vtable < 4 || vtable > size - 4) {
            return Refuse(Check::kVtable, position, vtable, 4, size - 4, "the vtable's position",
                          fmt::format("(22) [VELTO]:Vtable offset({}) is out of range(4 - {})", position, size - 4));
        }
        const uint32_t length = HalfWord(vtable);
        if (length > size - vtable) {
            return Refuse(Check::kVtableLength, vtable, length, 0, size - vtable, "the vtable's length",
                          fmt::format("(22) [VELTO]:Vtable Len({}) is out of range(0 - {})", length, size - vtable));
        }
        NoteTable(type, position, vtable, length);
        const bool good = WalkFields(type, position, vtable, length);
        function_ = caller;
        return good;
    }

    bool WalkFields(const Type &type, uint64_t position, uint64_t vtable, uint32_t length) {
        for (uint32_t i = 0; i < type.slots.size() && length >= 6 + 2 * i; ++i) {
            const uint64_t entry = vtable + 4 + 2 * i;
            const uint32_t offset = HalfWord(entry);
            path_.push_back({type.slots[i].name, 0});
            if (offset != 0 && !WalkField(type.slots[i], position, entry, offset)) {
                return false;
            }
            path_.pop_back();
        }
        return true;
    }

    bool WalkField(const Slot &slot, uint64_t position, uint64_t entry, uint32_t offset) {
        const uint32_t width = slot.kind == Kind::kScalar ? slot.width : 4;
        const uint64_t at = position + offset;
        if (at + width > message_.size()) {
            const bool fits = position + width <= message_.size();
            return Refuse(Check::kField, entry, offset, fits ? 0 : 1, fits ? message_.size() - position - width : 0,
                          "the field's offset from its table");
        }
        if (slot.kind == Kind::kScalar) {
            AddNote(at, width, [&] { return fmt::format("= {}", LoadScalar(At(at), width)); });
            return true;
        }
        if (slot.kind == Kind::kTable) {
            return WalkElement(*slot.table, at, "nested table");
        }
        const uint32_t forward = Word(at);
        const uint64_t data = at + forward;
        if (data + 4 > message_.size()) {
            return Refuse(Check::kReference, at, forward, 0, message_.size() - at - 4, "the offset word");
        }
        AddNote(at, 4, [&] { return fmt::format("offset {}: {} at {}", forward, KindText(slot), data); });
        return WalkData(slot, data);
    }

    // What an offset word leads to: a count and as many elements.
    bool WalkData(const Slot &slot, uint64_t countAt) {
        const uint32_t count = Word(countAt);
        const uint64_t data = countAt + 4;
        const uint32_t width = slot.table != nullptr ? 4 : slot.width;
        if (data + uint64_t{count} * width > message_.size()) {
            return Refuse(Check::kCount, countAt, count, 0, (message_.size() - data) / width, "the count");
        }
        const bool vector = velto::IsVectorKind(slot.kind);
        if (!vector && slot.kind != Kind::kString && count != slot.length) {
            return Refuse(Check::kFixedCount, countAt, count, slot.length, slot.length, "the count");
        }
        AddNote(countAt, 4, [&] { return fmt::format("count: {}", count); });
        if (vector && uint64_t{count} * slot.ElementSize() > UINT32_MAX) {
            return Refuse(Check::kMemory, countAt, count, 0, UINT32_MAX / slot.ElementSize(), "the count",
                          fmt::format("(12) [VELTO]:Malloc unpack data failed, size({})", UINT32_MAX));
        }
        if (slot.table == nullptr) {
            NoteElements(slot, data, count);
            return true;
        }
        for (uint32_t i = 0; i < count; ++i) {
            path_.push_back({nullptr, i});
            if (!WalkElement(*slot.table, data + uint64_t{4} * i, "element")) {
                return false;
            }
            path_.pop_back();
        }
        return true;
    }

    bool WalkElement(const Type &type, uint64_t word, const char *what) {
        const uint32_t forward = Word(word);
        const uint64_t position = word + forward;
        if (position > UINT32_MAX) {
            return Refuse(Check::kPositionWrap, word, forward, 0, UINT32_MAX - word, "the offset word");
        }
        AddNote(word, 4, [&] { return fmt::format("offset {}: {} at {}", forward, what, position); });
        return WalkTable(type, word, static_cast<uint32_t>(position), "_unpack_non_root");
    }

    bool Refuse(Check check, uint64_t at, uint64_t value, uint64_t least, uint64_t most, const char *what,
                const std::string &log = "") {
        const std::string function = fmt::format("Tarn_sys_diag_{}{}", function_.type, function_.suffix);
        const std::string path = PathText(path_);
        const std::string text = fmt::format("byte {}, {}: {} is {}, {}", at, path.empty() ? "the message" : path, what,
                                             value, Expected(least, most));
        explanation_.refusal = {
            check, function, path, at, value, least, most, text, log.empty() ? "" : function + " " + log};
        return false;
    }

    // The text is made only when it is wanted.
    template <class Text>
    void AddNote(uint64_t at, uint64_t size, Text text) {
        if (!wantNotes_) {
            return;
        }
        if (explanation_.notes.size() == kMostNotes) {
            explanation_.notesCut = true;
            return;
        }
        explanation_.notes.push_back({at, size, PathText(path_), text()});
    }

    void NoteTable(const Type &type, uint64_t position, uint64_t vtable, uint32_t length) {
        const uint32_t slots = length < 6 ? 0 : (length - 4) / 2;
        AddNote(vtable, 2, [&] { return fmt::format("vtable of {}: {} bytes, {} slots", type.name, length, slots); });
        if (length >= 4) {
            AddNote(vtable + 2, 2,
                    [&] { return fmt::format("object length {}, which no reader checks", HalfWord(vtable + 2)); });
        }
        for (uint32_t i = 0; i < slots; ++i) {
            const uint64_t entry = vtable + 4 + 2 * i;
            AddNote(entry, 2, [&] {
                const uint32_t offset = HalfWord(entry);
                const char *const name = i < type.slots.size() ? type.slots[i].name : "unknown to this version";
                return fmt::format("slot {}, {}: ", i, name) +
                       (offset == 0 ? "absent" : fmt::format("at {} + {}", position, offset));
            });
        }
        AddNote(position, 4, [&] {
            const bool before = vtable <= position;
            return fmt::format("table of {}: its vtable is {} bytes {}, at {}", type.name,
                               before ? position - vtable : vtable - position, before ? "before" : "behind", vtable);
        });
    }

    void NoteElements(const Slot &slot, uint64_t at, uint32_t count) {
        const auto bytes = message_.subspan(static_cast<size_t>(at), size_t{count} * slot.width);
        AddNote(at, bytes.size(), [&] { return "= " + ElementsText(slot, bytes); });
        if (slot.kind == Kind::kString && at + count < message_.size()) {
            AddNote(at + count, 1, [] { return "end of the string, which no reader checks"; });
        }
    }

    static std::string ElementsText(const Slot &slot, std::span<const uint8_t> bytes) {
        constexpr size_t kMost = 8;
        constexpr size_t kMostText = 60;
        std::string text;
        if (slot.kind == Kind::kArray64 || slot.kind == Kind::kVector32) {
            const size_t count = bytes.size() / slot.width;
            for (size_t i = 0; i < std::min(count, kMost); ++i) {
                text += fmt::format("{}{}", i == 0 ? "" : ", ", LoadScalar(&bytes[i * slot.width], slot.width));
            }
            return count > kMost ? text + ", ..." : text;
        }
        std::string_view all(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        if (slot.kind == Kind::kBytes) {
            all = all.substr(0, all.find_last_not_of('\0') + 1);
        }
        if (!IsText(all)) {
            return fmt::format("{} bytes, no text", bytes.size());
        }
        text = Json(all.size() > kMostText ? all.substr(0, kMostText) : all)
                   .dump(-1, ' ', true, Json::error_handler_t::replace);
        return all.size() > kMostText ? text + "..." : text;
    }

    // Of a place that is in the message.
    const uint8_t *At(uint64_t at) const { return &message_[static_cast<size_t>(at)]; }
    uint32_t Word(uint64_t at) const { return velto::Load<uint32_t>(At(at)); }
    uint16_t HalfWord(uint64_t at) const { return velto::Load<uint16_t>(At(at)); }

    // Whose name the log shows.
    struct Function {
        const char *type;
        const char *suffix;
    };

    std::span<const uint8_t> message_;
    bool wantNotes_;
    Function function_{};
    std::vector<Step> path_;
    Explanation explanation_;
};

Explanation BadLength(const Type &type, std::span<const uint8_t> message) {
    const std::string function = fmt::format("Tarn_sys_diag_{}_unpack", type.name);
    const uint64_t length = message.size();
    const std::string text = fmt::format("the message's length is {}, {}", length, Expected(4, INT32_MAX));
    const std::string log = fmt::format("{} (22) [VELTO]:Param invalid({}, {}, nonNull)", function,
                                        message.data() == nullptr ? "null" : "nonNull", static_cast<int32_t>(length));
    return {Refusal{Check::kLength, function, "", 0, length, 4, INT32_MAX, text, log}, {}};
}

} // namespace

const char *CheckName(Check check) {
    switch (check) {
    case Check::kLength:
        return "message length";
    case Check::kPositionWrap:
        return "table position wraps";
    case Check::kTable:
        return "table position";
    case Check::kVtable:
        return "vtable position";
    case Check::kVtableLength:
        return "vtable length";
    case Check::kField:
        return "field range";
    case Check::kReference:
        return "reference range";
    case Check::kCount:
        return "count range";
    case Check::kFixedCount:
        return "declared count";
    case Check::kMemory:
        return "memory";
    }
    return "?";
}

Explanation Explain(const Type &type, std::span<const uint8_t> message, bool notes) {
    if (message.size() < 4 || message.size() > INT32_MAX) {
        return BadLength(type, message);
    }
    Walker walker(message, notes);
    walker.WalkMessage(type);
    return walker.Take();
}

std::string DumpText(const Explanation &explanation, std::span<const uint8_t> message) {
    constexpr uint64_t kBytesShown = 8;
    std::string text;
    const auto line = [&](uint64_t at, uint64_t size, const std::string &path, const std::string &meaning) {
        std::string hex;
        for (const uint8_t byte :
             message.subspan(static_cast<size_t>(at), static_cast<size_t>(std::min(size, kBytesShown)))) {
            hex += fmt::format("{:02x} ", byte);
        }
        hex += size > kBytesShown ? "..." : "";
        text += fmt::format("{:>8} {:>6}  {:<28}{}{}{}\n", at, size, hex, path, path.empty() ? "" : " ", meaning);
    };
    uint64_t end = 0;
    for (const Note &note : explanation.notes) {
        if (note.at > end) {
            line(end, note.at - end, "", "nothing refers to these");
        }
        line(note.at, note.size, note.path, note.text);
        end = std::max(end, note.at + note.size);
    }
    if (explanation.notesCut) {
        text += "the rest is left out: too many fields\n";
    } else if (end < message.size()) {
        line(end, message.size() - end, "", explanation.refusal ? "not read" : "nothing refers to these");
    }
    return text;
}

} // namespace host::describe
