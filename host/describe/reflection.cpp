#include "host/describe/reflection.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <unordered_map>

#include "host/describe/json.h"
#include "host/meaning/groups.h"
#include "host/meaning/reflect.h"
#include "host/meaning/unit.h"
#include "host/osal/text.h"
#include "velto/layout.h"
#include "velto/shape.h"

namespace host::describe {

namespace {

using meaning::Choice;
using meaning::Member;
using meaning::Value;

constexpr uint32_t kDeepest = 16;      // tables inside of each other
constexpr size_t kMostSlots = 0x0FFF;  // more take no 16 bits in a message
constexpr size_t kMostInside = 0x0100; // slots of tables: a shape numbers them in 8 bits
constexpr uint32_t kMostBytes = 0xFFFF;

[[noreturn]] void Refuse(const std::string &what) {
    throw ReflectionError(what);
}

[[noreturn]] void Refuse(std::string_view key, const Json &found, std::string_view expected) {
    constexpr size_t kShown = 60;
    Refuse(fmt::format("{} is {}, expected {}", key, LineOfText(found.dump()).substr(0, kShown), expected));
}

const Json &At(const Json &object, const char *key) {
    if (!object.is_object()) {
        Refuse("it", object, "an object");
    }
    const auto found = object.find(key);
    if (found == object.end()) {
        Refuse(fmt::format("it has no {}", key));
    }
    return *found;
}

uint64_t NumberAt(const Json &object, const char *key, uint64_t most) {
    const Json &number = At(object, key);
    if (!number.is_number_unsigned() || number.get<uint64_t>() > most) {
        Refuse(key, number, fmt::format("a whole number up to {}", most));
    }
    return number.get<uint64_t>();
}

uint32_t Number32At(const Json &object, const char *key, uint32_t most = UINT32_MAX) {
    return static_cast<uint32_t>(NumberAt(object, key, most));
}

bool SwitchAt(const Json &object, const char *key) {
    const Json &value = At(object, key);
    if (!value.is_boolean()) {
        Refuse(key, value, "true or false");
    }
    return value.get<bool>();
}

const Json &ListAt(const Json &object, const char *key) {
    const Json &list = At(object, key);
    if (!list.is_array()) {
        Refuse(key, list, "an array");
    }
    return list;
}

// It goes to terminals.
const std::string &TextAt(const Json &object, const char *key) {
    const Json &text = At(object, key);
    if (!text.is_string() || LineOfText(text.get_ref<const std::string &>()) != text) {
        Refuse(key, text, "a line of text");
    }
    return text.get_ref<const std::string &>();
}

// What names things on the wire or to people: both can be typed.
const std::string &NameAt(const Json &object, const char *key) {
    constexpr size_t kLongest = 128;
    const std::string &name = TextAt(object, key);
    const bool plain = std::ranges::all_of(name, [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '_' || letter == '-';
    });
    if (name.empty() || name.size() > kLongest || !plain) {
        Refuse(key, name, "a name of letters, digits, _ and -");
    }
    return name;
}

// Each element, with its place in the text of what is refused.
template <class Function>
void EachAt(const Json &object, const char *key, Function read) {
    const Json &list = ListAt(object, key);
    for (size_t i = 0; i < list.size(); ++i) {
        try {
            read(list[i]);
        } catch (const ReflectionError &error) {
            Refuse(fmt::format("{}[{}]: {}", key, i, error.what()));
        }
    }
}

// A shape with its slots and elements behind it, as the decoder reads it.
struct OwnShape {
    std::vector<uint64_t> storage;

    const velto::TypeShape *Get() const { return reinterpret_cast<const velto::TypeShape *>(storage.data()); }
};

OwnShape ShapeOf(const Type &type) {
    const auto elementNum =
        static_cast<size_t>(std::ranges::count_if(type.slots, [](const Slot &slot) { return slot.table != nullptr; }));
    const size_t slotsEnd = sizeof(velto::TypeShape) + type.slots.size() * sizeof(velto::SlotShape);
    const size_t elementsAt = velto::AlignUp(static_cast<uint32_t>(slotsEnd), alignof(velto::ElementShape));
    const size_t size = elementsAt + elementNum * sizeof(velto::ElementShape);
    OwnShape shape{std::vector<uint64_t>(size / sizeof(uint64_t) + 1)};
    auto *const at = reinterpret_cast<uint8_t *>(shape.storage.data());
    const velto::TypeShape head{static_cast<uint16_t>(type.size), 0, static_cast<uint16_t>(type.slots.size()),
                                static_cast<uint16_t>(elementsAt)};
    memcpy(at, &head, sizeof head);
    size_t element = 0;
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        velto::SlotShape one{slot.kind, static_cast<uint8_t>(slot.width), static_cast<uint16_t>(slot.offset),
                             static_cast<uint16_t>(velto::IsVectorKind(slot.kind) ? slot.countOffset : slot.length)};
        if (slot.table != nullptr) {
            const velto::ElementShape inside{slot.table->shape, slot.table->name};
            memcpy(at + elementsAt + element * sizeof inside, &inside, sizeof inside);
            one.width = static_cast<uint8_t>(element++);
        }
        memcpy(at + sizeof head + i * sizeof one, &one, sizeof one);
    }
    return shape;
}

bool IsFixedArray(Kind kind) {
    return kind == Kind::kBytes || kind == Kind::kArray64 || kind == Kind::kTableRun;
}

// What a slot's kind leaves to say is all that the text may say of its size.
void CheckSize(const Slot &slot) {
    const bool width = slot.kind == Kind::kScalar
                           ? slot.width == 1 || slot.width == 2 || slot.width == 4 || slot.width == 8
                       : slot.table != nullptr        ? slot.width == 0
                       : slot.kind == Kind::kArray64  ? slot.width == 8
                       : slot.kind == Kind::kVector32 ? slot.width == 4
                                                      : slot.width == 1;
    if (!width || IsFixedArray(slot.kind) != (slot.length != 0)) {
        Refuse(fmt::format("{} has the width {} and the length {}, expected those of a {}", slot.name, slot.width,
                           slot.length, meaning::kSlotKinds[static_cast<size_t>(slot.kind)]));
    }
    if (velto::IsVectorKind(slot.kind) != (slot.count != nullptr)) {
        Refuse(fmt::format("{} has a member for its count or none, expected one for a vector and for nothing else",
                           slot.name));
    }
}

// The kind of a value in such a slot, for one that only newer programs know.
meaning::Kind PlainKind(const Slot &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return meaning::Kind::kNumber;
    case Kind::kTable:
        return meaning::Kind::kRecord;
    case Kind::kTableRun:
    case Kind::kTableVector:
        return meaning::Kind::kRecords;
    case Kind::kArray64:
    case Kind::kVector32:
        return meaning::Kind::kNumbers;
    default:
        return meaning::Kind::kBinary;
    }
}

bool IsTimeRecord(const Type &type) {
    constexpr std::string_view kMembers[] = {"usYear",   "ucMonth",  "ucDay",        "ucHour",
                                             "ucMinute", "ucSecond", "uiMillisecond"};
    return std::ranges::all_of(kMembers, [&](std::string_view member) {
        return std::ranges::any_of(type.slots,
                                   [&](const Slot &slot) { return slot.kind == Kind::kScalar && slot.name == member; });
    });
}

// Whether what is done with values of that kind can be done with what is in that slot.
bool Fits(meaning::Kind kind, const Slot &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return kind < meaning::Kind::kText;
    case Kind::kString:
    case Kind::kBytes:
    case Kind::kByteVector:
        return kind >= meaning::Kind::kText && kind <= meaning::Kind::kBinary;
    case Kind::kTable:
        return kind == meaning::Kind::kRecord || (meaning::IsTime(kind) && IsTimeRecord(*slot.table));
    case Kind::kTableRun:
    case Kind::kTableVector:
        return kind == meaning::Kind::kRecords;
    default:
        return kind == meaning::Kind::kNumbers || kind == meaning::Kind::kTids || kind < meaning::Kind::kText;
    }
}

// Members stand behind each other, each at a multiple of 8: the layout is this program's affair.
void LayOut(Type &type) {
    uint64_t end = 0;
    const auto place = [&end](uint64_t size) {
        const uint64_t at = end;
        end += (size + 7) / 8 * 8;
        return static_cast<uint32_t>(std::min<uint64_t>(at, kMostBytes));
    };
    for (Slot &slot : type.slots) {
        const bool vector = velto::IsVectorKind(slot.kind);
        if (vector) {
            slot.countOffset = place(sizeof(uint32_t));
        }
        const bool pointer = vector || slot.kind == Kind::kString;
        slot.offset = place(pointer ? sizeof(void *) : uint64_t{slot.ElementSize()} * std::max(slot.length, 1U));
    }
    if (end > kMostBytes) {
        Refuse(fmt::format("{} takes {} bytes, expected at most {}", type.name, end, kMostBytes));
    }
    type.size = static_cast<uint32_t>(std::max<uint64_t>(end, 1));
}

// Whoever checks a record follows what its members say of each other.
void CheckReferences(const meaning::Record &record) {
    const auto memberAt = [&](std::string_view wire) -> const Member * {
        const auto found = std::ranges::find(record.members, wire, &Member::wire);
        const auto index = static_cast<size_t>(found - record.members.begin());
        const bool number = found != record.members.end() && record.shape->Slot(index).kind == Kind::kScalar;
        return number ? &*found : nullptr;
    };
    for (const Member &member : record.members) {
        for (const std::string_view other : {member.value.notAbove, member.value.notBelow, member.value.matters}) {
            if (!other.empty() && memberAt(other) == nullptr) {
                Refuse(fmt::format("{} refers to {}, expected a number of the same record", member.wire, other));
            }
        }
    }
    for (const Member &member : record.members) {
        const Member *on = &member;
        for (size_t steps = 0; !on->value.matters.empty(); ++steps) {
            if (steps == record.members.size()) {
                Refuse(
                    fmt::format("it depends on {} whether {} matters, and so on in a circle", on->wire, member.wire));
            }
            on = memberAt(on->value.matters);
        }
    }
}

} // namespace

struct Interface::Parts {
    std::deque<std::string> texts;
    std::deque<std::vector<Choice>> choices;
    std::deque<std::vector<Member>> members;
    std::deque<std::vector<velto::SlotName>> slotNames;
    std::deque<std::vector<const meaning::Record *>> insides;
    std::deque<meaning::Record> records;
    std::deque<meaning::Method> meanings;
    std::deque<OwnShape> shapes;
    std::deque<Type> types;
    std::vector<Method> methods;
};

class Interface::Reader {
public:
    explicit Reader(Parts &parts) : to_(parts) {}

    // What is inside stands in front of what holds it: so nothing holds itself.
    void Read(const Json &json) {
        EachAt(json, "types", [this](const Json &from) { ReadType(from); });
        EachAt(json, "records", [this](const Json &from) { ReadRecord(from); });
        EachAt(json, "services", [this](const Json &service) {
            const char *const name = Keep(NameAt(service, "name"));
            EachAt(service, "methods", [&](const Json &from) { ReadMethod(name, from); });
        });
    }

private:
    const char *Keep(const std::string &text) { return to_.texts.emplace_back(text).c_str(); }
    std::string_view KeepOptional(const Json &object, const char *key) {
        return object.contains(key) ? std::string_view(Keep(TextAt(object, key))) : std::string_view();
    }

    void ReadType(const Json &from);
    Slot ReadSlot(const Json &from);
    void ReadRecord(const Json &from);
    void ReadMembers(const Json &from, const Type &type);
    const meaning::Record *ReadInside(const Json &number, const Slot &slot) const;
    Member ReadMember(const Json &from, const Slot &slot);
    Value ReadValue(const Json &from, const Slot &slot);
    void ReadMethod(const char *service, const Json &from);

    const Type &TypeAt(const Json &object, const char *key) const;
    const meaning::Record &RecordOf(const Json &number, std::string_view key) const;

    Parts &to_;
    std::unordered_map<std::string_view, const Type *> types_;
    std::unordered_map<const Type *, uint32_t> depths_;
};

const Type &Interface::Reader::TypeAt(const Json &object, const char *key) const {
    const auto found = types_.find(NameAt(object, key));
    if (found == types_.end()) {
        Refuse(key, At(object, key), "a type in front of it");
    }
    return *found->second;
}

const meaning::Record &Interface::Reader::RecordOf(const Json &number, std::string_view key) const {
    if (!number.is_number_unsigned() || number.get<uint64_t>() >= to_.records.size()) {
        Refuse(key, number, fmt::format("the number of one of the {} records in front of it", to_.records.size()));
    }
    return to_.records[number.get<size_t>()];
}

Slot Interface::Reader::ReadSlot(const Json &from) {
    const auto kind = std::ranges::find(meaning::kSlotKinds, NameAt(from, "kind"));
    if (kind == std::end(meaning::kSlotKinds) || kind == std::begin(meaning::kSlotKinds)) {
        Refuse("kind", At(from, "kind"), "a kind of slot");
    }
    Slot slot{Keep(NameAt(from, "member")),
              At(from, "count").is_null() ? nullptr : Keep(NameAt(from, "count")),
              static_cast<Kind>(kind - std::begin(meaning::kSlotKinds)),
              0,
              0,
              Number32At(from, "width", kMostBytes),
              Number32At(from, "length", kMostBytes),
              nullptr};
    if (velto::IsTableKind(slot.kind)) {
        slot.table = &TypeAt(from, "type");
    }
    CheckSize(slot);
    return slot;
}

void Interface::Reader::ReadType(const Json &from) {
    Type type{Keep(NameAt(from, "name")), Number32At(from, "hash"), 0, {}, {}, nullptr};
    uint32_t depth = 0;
    EachAt(from, "slots", [&](const Json &one) {
        type.slots.push_back(ReadSlot(one));
        if (const Type *const inside = type.slots.back().table) {
            depth = std::max(depth, depths_.at(inside) + 1);
        }
    });
    const auto inside = std::ranges::count_if(type.slots, [](const Slot &slot) { return slot.table != nullptr; });
    if (type.slots.size() > kMostSlots || static_cast<size_t>(inside) > kMostInside || depth > kDeepest) {
        Refuse(fmt::format("{} has {} slots, {} of tables, {} deep, expected at most {}, {} and {}", type.name,
                           type.slots.size(), inside, depth, kMostSlots, kMostInside, kDeepest));
    }
    LayOut(type);
    type.shape = to_.shapes.emplace_back(ShapeOf(type)).Get();
    const Type &kept = to_.types.emplace_back(std::move(type));
    if (!types_.emplace(kept.name, &kept).second) {
        Refuse(fmt::format("{} is there twice", kept.name));
    }
    depths_.emplace(&kept, depth);
}

Value Interface::Reader::ReadValue(const Json &from, const Slot &slot) {
    const auto number = [&from](const char *key, uint64_t otherwise) {
        return from.contains(key) ? NumberAt(from, key, UINT64_MAX) : otherwise;
    };
    Value value;
    value.kind = meaning::KindNamed(TextAt(from, "kind")).value_or(PlainKind(slot));
    if (!Fits(value.kind, slot)) {
        Refuse("kind", At(from, "kind"), fmt::format("one that {} can hold, {}", slot.name, KindText(slot)));
    }
    value.least = number("least", 0);
    value.most = number("most", UINT64_MAX);
    value.open = from.contains("open") && SwitchAt(from, "open");
    value.hasZero = from.contains("zero");
    value.zero = KeepOptional(from, "zero");
    value.zeroStandsFor = number("standsFor", 0);
    value.notAbove = KeepOptional(from, "notAbove");
    value.notBelow = KeepOptional(from, "notBelow");
    value.matters = KeepOptional(from, "matters");
    value.mattersAt = number("mattersAt", 0);
    std::vector<Choice> &named = to_.choices.emplace_back();
    if (from.contains("choices")) {
        EachAt(from, "choices", [&](const Json &one) {
            named.push_back({Number32At(one, "value"), Keep(NameAt(one, "name")), Keep(TextAt(one, "sentence"))});
        });
    }
    value.choices = named;
    return value;
}

Member Interface::Reader::ReadMember(const Json &from, const Slot &slot) {
    const std::string &wire = NameAt(from, "wire");
    if (wire != slot.name) {
        Refuse("wire", wire, slot.name);
    }
    return {slot.name, Keep(NameAt(from, "name")), ReadValue(from, slot), Keep(TextAt(from, "sentence"))};
}

const meaning::Record *Interface::Reader::ReadInside(const Json &number, const Slot &slot) const {
    if (slot.table == nullptr) {
        return nullptr;
    }
    const meaning::Record &inside = RecordOf(number, slot.name);
    if (inside.shape != slot.table->shape) {
        Refuse(slot.name, number, fmt::format("a record of {}", slot.table->name));
    }
    return &inside;
}

void Interface::Reader::ReadMembers(const Json &from, const Type &type) {
    const size_t slotNum = type.slots.size();
    const Json &numbers = ListAt(from, "inside");
    if (ListAt(from, "members").size() != slotNum || numbers.size() != slotNum) {
        Refuse(fmt::format("it has {} members and {} inside, expected {}, as {} has slots",
                           ListAt(from, "members").size(), numbers.size(), slotNum, type.name));
    }
    std::vector<Member> &members = to_.members.emplace_back();
    std::vector<const meaning::Record *> &insides = to_.insides.emplace_back();
    std::vector<velto::SlotName> &names = to_.slotNames.emplace_back();
    EachAt(from, "members", [&](const Json &one) {
        const size_t index = members.size();
        const Slot &slot = type.slots[index];
        members.push_back(ReadMember(one, slot));
        insides.push_back(ReadInside(numbers[index], slot));
        names.push_back({slot.name, slot.count});
    });
    to_.records.push_back({type.name, type.shape, names.data(), members, insides});
}

void Interface::Reader::ReadRecord(const Json &from) {
    ReadMembers(from, TypeAt(from, "type"));
    CheckReferences(to_.records.back());
}

void Interface::Reader::ReadMethod(const char *service, const Json &from) {
    const bool hasReply = !At(from, "response").is_null();
    const meaning::Record &request = RecordOf(At(from, "request"), "request");
    const meaning::Record *const response = hasReply ? &RecordOf(At(from, "response"), "response") : nullptr;
    const meaning::Method &method = to_.meanings.emplace_back(meaning::Method{
        service, Keep(NameAt(from, "name")), GroupNamed(TextAt(from, "group")).value_or(Group::kCommands),
        SwitchAt(from, "long") ? meaning::Duration::kLong : meaning::Duration::kShort, Keep(TextAt(from, "sentence")),
        Keep(TextAt(from, "example")), &request, response});
    to_.methods.push_back({service, method.name, Number32At(from, "index"), types_.at(request.type),
                           hasReply ? types_.at(response->type) : nullptr, &method});
}

Interface::Interface(std::string_view reflection) : parts_(std::make_unique<Parts>()) {
    try {
        Reader(*parts_).Read(ParseJson(reflection));
    } catch (const std::runtime_error &error) { // of this or of JSON
        throw ReflectionError(fmt::format("not a description of services: {}", error.what()));
    }
}

Interface::~Interface() = default;

const std::vector<Method> &Interface::Methods() const {
    return parts_->methods;
}

const Method *Interface::FindMethod(std::string_view name) const {
    return describe::FindMethod(parts_->methods, name);
}

} // namespace host::describe
