#include "host/describe/json.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "host/describe/codec.h"
#include "host/osal/hex.h"
#include "host/osal/text.h"

template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace host::describe {

namespace {

// Adds a step to a path for the time of its life.
class PathStep {
public:
    PathStep(std::string &path, std::string_view member) : path_(path), length_(path.size()) {
        path_ += (path_.empty() ? "" : ".") + std::string(member);
    }
    PathStep(std::string &path, size_t index) : path_(path), length_(path.size()) {
        path_ += fmt::format("[{}]", index);
    }
    PathStep(const PathStep &) = delete;
    PathStep &operator=(const PathStep &) = delete;
    ~PathStep() { path_.resize(length_); }

private:
    std::string &path_;
    size_t length_;
};

// What a message says it found: the value, cut to a readable length.
std::string Found(const Json &json) {
    constexpr size_t kLongest = 40;
    if (json.is_array()) {
        return fmt::format("an array of {}", json.size());
    }
    if (json.is_object()) {
        return "an object";
    }
    std::string text = json.dump(-1, ' ', true, Json::error_handler_t::replace);
    if (text.size() > kLongest) {
        text = text.substr(0, kLongest) + "...";
    }
    return text;
}

class Reader {
public:
    void ReadRecord(const Type &type, const Json &json, void *record) {
        if (!json.is_object()) {
            Fail(json, fmt::format("an object with the fields of {}", type.name));
        }
        for (const auto &[key, value] : json.items()) {
            RequireField(type, key);
        }
        for (const Slot &slot : type.slots) {
            if (const auto found = json.find(slot.name); found != json.end()) {
                const PathStep step(path_, slot.name);
                ReadSlot(slot, *found, record);
            }
            if (slot.count != nullptr && json.contains(slot.count)) {
                const PathStep step(path_, slot.count);
                RequireCount(json[slot.count], slot.name, ElementsOf(slot, record).count);
            }
        }
    }

private:
    [[noreturn]] void Fail(const std::string &found, const std::string &expected) const {
        throw JsonError(
            fmt::format("{}: found {}, expected {}", path_.empty() ? "the message" : path_, found, expected));
    }
    [[noreturn]] void Fail(const Json &found, const std::string &expected) const { Fail(Found(found), expected); }

    void RequireField(const Type &type, const std::string &key) {
        std::vector<std::string_view> names;
        for (const Slot &slot : type.slots) {
            names.emplace_back(slot.name);
            if (slot.count != nullptr) {
                names.emplace_back(slot.count);
            }
        }
        if (std::find(names.begin(), names.end(), key) != names.end()) {
            return;
        }
        const PathStep step(path_, key);
        throw JsonError(fmt::format("{}: {} has no such field{}", path_, type.name, DidYouMean(key, names)));
    }

    void RequireCount(const Json &json, const char *vector, uint32_t count) const {
        if (ReadNumber(json, sizeof count) != count) {
            Fail(json, fmt::format("{}, the number of elements of {}", count, vector));
        }
    }

    void ReadSlot(const Slot &slot, const Json &json, void *record) {
        auto *const member = static_cast<uint8_t *>(record) + slot.offset;
        switch (slot.kind) {
        case Kind::kScalar:
            StoreScalar(member, slot.width, ReadNumber(json, slot.width));
            return;
        case Kind::kString:
            ReadString(json, record, slot);
            return;
        case Kind::kBytes:
            ReadFixedBytes(json, member, slot.length);
            return;
        case Kind::kTable:
            ReadRecord(*slot.table, json, member);
            return;
        case Kind::kByteVector:
            ReadByteVector(json, record, slot);
            return;
        default:
            ReadElements(slot, json, record);
        }
    }

    uint64_t ReadNumber(const Json &json, uint32_t width) const {
        const uint64_t most = MaxScalar(width);
        if (!json.is_number_integer() || (!json.is_number_unsigned() && json.get<int64_t>() < 0) ||
            json.get<uint64_t>() > most) {
            Fail(json, fmt::format("a whole number from 0 to {}", most));
        }
        return json.get<uint64_t>();
    }

    // Text, or the bytes of {"hex": "..."}.
    std::string ReadBytes(const Json &json, const char *expected) {
        if (json.is_string()) {
            return json.get<std::string>();
        }
        if (!json.is_object() || json.size() != 1 || !json.contains("hex")) {
            Fail(json, expected);
        }
        const Json &digits = json["hex"];
        const PathStep step(path_, "hex");
        const auto bytes = digits.is_string() ? FromHex(digits.get_ref<const std::string &>()) : std::nullopt;
        if (!bytes) {
            Fail(digits, "an even number of hex digits");
        }
        return {bytes->begin(), bytes->end()};
    }

    void ReadString(const Json &json, void *record, const Slot &slot) {
        if (json.is_null()) {
            return;
        }
        const std::string text = ReadBytes(json, "text, {\"hex\": \"...\"} or null");
        if (text.find('\0') != text.npos) {
            Fail(json, "text without a 0 byte, which would end it");
        }
        auto *const copy = static_cast<char *>(AllocateOwned(text.size() + 1));
        memcpy(copy, text.data(), text.size());
        StoreMember(record, slot.offset, copy);
    }

    void ReadFixedBytes(const Json &json, uint8_t *member, uint32_t length) {
        const std::string bytes = ReadBytes(json, "text or {\"hex\": \"...\"}");
        if (json.is_string() ? bytes.size() > length : bytes.size() != length) {
            Fail(fmt::format("{} bytes", bytes.size()),
                 fmt::format("{}{} bytes", json.is_string() ? "text of at most " : "", length));
        }
        memcpy(member, bytes.data(), bytes.size());
    }

    void ReadByteVector(const Json &json, void *record, const Slot &slot) {
        if (json.is_null()) {
            return;
        }
        const std::string bytes = ReadBytes(json, "text, {\"hex\": \"...\"} or null");
        if (!bytes.empty()) {
            memcpy(NewVector(slot, bytes.size(), record), bytes.data(), bytes.size());
        }
    }

    // The storage of a vector that is not empty.
    uint8_t *NewVector(const Slot &slot, size_t count, void *record) const {
        const uint64_t size = slot.ElementSize();
        if (count > UINT32_MAX / size) {
            Fail(fmt::format("{} elements", count), fmt::format("at most {}", UINT32_MAX / size));
        }
        auto *const elements = static_cast<uint8_t *>(AllocateOwned(count * size));
        StoreMember(record, slot.offset, elements);
        StoreMember(record, slot.countOffset, static_cast<uint32_t>(count));
        return elements;
    }

    // Arrays and runs of fixed length, and vectors of scalars or tables.
    void ReadElements(const Slot &slot, const Json &json, void *record) {
        const bool vector = velto::IsVectorKind(slot.kind);
        if (vector && json.is_null()) {
            return;
        }
        if (!json.is_array()) {
            Fail(json, vector ? "an array or null" : fmt::format("an array of {}", slot.length));
        }
        if (!vector && json.size() != slot.length) {
            Fail(json, fmt::format("an array of {}", slot.length));
        }
        if (vector && !json.empty()) {
            NewVector(slot, json.size(), record);
        }
        const Elements elements = ElementsOf(slot, record);
        for (uint32_t i = 0; i < elements.count; ++i) {
            const PathStep step(path_, i);
            uint8_t *const element = elements.first + size_t{i} * elements.size;
            if (slot.table != nullptr) {
                ReadRecord(*slot.table, json[i], element);
            } else {
                StoreScalar(element, slot.width, ReadNumber(json[i], slot.width));
            }
        }
    }

    std::string path_;
};

Json BytesToJson(const void *bytes, size_t length, bool padded) {
    const std::string_view all(static_cast<const char *>(bytes), length);
    std::string_view text = all;
    if (padded) {
        text = all.substr(0, all.find_last_not_of('\0') + 1);
    }
    if (IsText(text)) {
        return std::string(text);
    }
    return Json{{"hex", Hex({static_cast<const uint8_t *>(bytes), length})}};
}

Json RecordToJson(const Type &type, const void *record);

Json SlotToJson(const Slot &slot, const void *record) {
    const Elements elements = ElementsOf(slot, record);
    switch (slot.kind) {
    case Kind::kScalar:
        return LoadScalar(static_cast<const uint8_t *>(record) + slot.offset, slot.width);
    case Kind::kString: {
        const auto *const text = LoadMember<const char *>(record, slot.offset);
        return text == nullptr ? Json() : BytesToJson(text, strlen(text), false);
    }
    case Kind::kBytes:
        return BytesToJson(elements.first, elements.count, true);
    case Kind::kByteVector:
        return BytesToJson(elements.first, elements.count, false);
    case Kind::kTable:
        return RecordToJson(*slot.table, elements.first);
    default:
        break;
    }
    Json array = Json::array();
    for (uint32_t i = 0; i < elements.count; ++i) {
        const uint8_t *const element = elements.first + size_t{i} * elements.size;
        array.push_back(slot.table != nullptr ? RecordToJson(*slot.table, element)
                                              : Json(LoadScalar(element, slot.width)));
    }
    return array;
}

Json RecordToJson(const Type &type, const void *record) {
    Json object = Json::object();
    for (const Slot &slot : type.slots) {
        object[slot.name] = SlotToJson(slot, record);
    }
    return object;
}

} // namespace

Json ParseJson(std::string_view text) {
    static constexpr int kDeepest = 64;      // what reads and writes values calls itself for each level
    std::vector<std::set<std::string>> keys; // of the objects that are open
    const auto check = [&keys](int depth, Json::parse_event_t event, Json &parsed) {
        if (depth > kDeepest) {
            throw JsonError(fmt::format("it is nested deeper than {} levels", kDeepest));
        }
        if (event == Json::parse_event_t::object_start) {
            keys.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == Json::parse_event_t::key && !keys.back().insert(parsed.get<std::string>()).second) {
            throw JsonError(fmt::format("the key {} stands twice in one object", parsed.dump()));
        }
        return true;
    };
    try {
        return Json::parse(text, check);
    } catch (const Json::exception &error) { // of the syntax, or a number that no double holds
        const std::string_view what = error.what();
        const size_t start = what.find("] ");
        throw JsonError(fmt::format("not JSON: {}", start == what.npos ? what : what.substr(start + 2)));
    }
}

Record FromJson(const Type &type, const Json &json) {
    Record record(type);
    Reader().ReadRecord(type, json, record.Data());
    return record;
}

Json ToJson(const Record &record) {
    return RecordToJson(record.GetType(), record.Data());
}

std::optional<std::vector<uint8_t>> FromHex(std::string_view text) {
    const auto digit = [](char character) -> unsigned {
        const auto lower = static_cast<unsigned char>(character | 0x20);
        return character >= '0' && character <= '9' ? static_cast<unsigned>(character - '0')
               : lower >= 'a' && lower <= 'f'       ? static_cast<unsigned>(lower - 'a' + 10)
                                                    : 16;
    };
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const unsigned high = digit(text[i]);
        const unsigned low = i + 1 < text.size() ? digit(text[i + 1]) : 16;
        if (high > 15 || low > 15) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return bytes;
}

} // namespace host::describe
