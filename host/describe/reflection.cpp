#include "host/describe/reflection.h"

#include <algorithm>
#include <array>
#include <map>
#include <tuple>
#include <unordered_map>

#include "host/describe/json.h"
#include "host/meaning/groups.h"
#include "host/meaning/unit.h"
#include "velto/fixed.h"
#include "velto/shape.h"

namespace host::describe {

namespace {

using meaning::Choice;
using meaning::Member;
using meaning::Value;

constexpr std::string_view kKinds[] = {"unsupported", "scalar", "string",      "bytes",    "array64",
                                       "table",       "run",    "byte-vector", "vector32", "table-vector"};

// ---- To JSON ----

Json ChoicesJson(const Value &value) {
    Json choices = Json::array();
    for (const Choice &one : value.choices) {
        choices.push_back({{"value", one.value}, {"name", one.name}, {"sentence", one.sentence}});
    }
    return choices;
}

Json MemberJson(const Member &member) {
    const Value &value = member.value;
    Json json{{"wire", member.wire},
              {"name", member.name},
              {"kind", meaning::NameOf(value.kind)},
              {"sentence", member.sentence}};
    const auto add = [&json](const char *key, const auto &what, const auto &nothing) {
        if (what != nothing) {
            json[key] = what;
        }
    };
    add("least", value.least, uint64_t{0});
    add("most", value.most, UINT64_MAX);
    add("open", value.open, false);
    if (value.hasZero) {
        json["zero"] = value.zero;
    }
    add("standsFor", value.zeroStandsFor, uint64_t{0});
    add("notAbove", value.notAbove, std::string_view());
    add("notBelow", value.notBelow, std::string_view());
    if (!value.matters.empty()) {
        json["matters"] = value.matters;
        json["mattersAt"] = value.mattersAt;
    }
    if (!value.choices.empty()) {
        json["choices"] = ChoicesJson(value);
    }
    return json;
}

Json TypeJson(const Type &type) {
    Json slots = Json::array();
    for (const Slot &slot : type.slots) {
        slots.push_back({{"member", slot.name},
                         {"count", slot.count == nullptr ? Json() : Json(slot.count)},
                         {"kind", kKinds[static_cast<size_t>(slot.kind)]},
                         {"width", slot.width},
                         {"length", slot.length},
                         {"type", slot.table == nullptr ? Json() : Json(slot.table->name)}});
    }
    return {{"name", type.name}, {"hash", type.hash}, {"slots", std::move(slots)}};
}

// Gives records and types their numbers, each once, what is inside before what holds it.
class Writer {
public:
    Json Write(std::span<const meaning::Service *const> services) {
        Json list = Json::array();
        for (const meaning::Service *service : services) {
            Json methods = Json::array();
            for (const meaning::Method *method : service->methods) {
                methods.push_back({{"name", method->name},
                                   {"index", methods.size() + 1},
                                   {"group", NameOf(method->group)},
                                   {"long", method->duration == meaning::Duration::kLong},
                                   {"sentence", method->sentence},
                                   {"example", method->example},
                                   {"request", Number(*method->request)},
                                   {"response", method->response == nullptr ? Json() : Number(*method->response)}});
            }
            list.push_back({{"name", service->name}, {"sentence", service->sentence}, {"methods", std::move(methods)}});
        }
        return {{"services", std::move(list)}, {"records", std::move(records_)}, {"types", std::move(types_)}};
    }

private:
    Json Number(const meaning::Record &record) {
        Json inside = Json::array();
        for (const meaning::Record *one : record.inside) {
            inside.push_back(one == nullptr ? Json() : Number(*one));
        }
        const auto [found, added] =
            numbers_.try_emplace({record.type, record.members.data(), inside.dump()}, records_.size());
        if (added) {
            Json members = Json::array();
            for (const Member &member : record.members) {
                members.push_back(MemberJson(member));
            }
            AddType(record.type);
            records_.push_back({{"type", record.type}, {"members", std::move(members)}, {"inside", std::move(inside)}});
        }
        return found->second;
    }

    void AddType(const char *name) {
        if (known_.emplace(name, true).second) {
            types_.push_back(TypeJson(*FindType(name)));
        }
    }

    std::map<std::tuple<std::string, const Member *, std::string>, size_t> numbers_;
    std::map<std::string, bool> known_;
    Json records_ = Json::array(), types_ = Json::array();
};

} // namespace

std::string Reflect(std::span<const meaning::Service *const> services) {
    return Writer().Write(services).dump();
}

// ---- From JSON ----

namespace {

// A shape with its slots and elements behind it, as the decoder reads it.
struct OwnShape {
    std::vector<uint64_t> storage;

    const velto::TypeShape *Get() const { return reinterpret_cast<const velto::TypeShape *>(storage.data()); }
};

OwnShape ShapeOf(const Type &type) {
    size_t elementNum = 0;
    for (const Slot &slot : type.slots) {
        elementNum += slot.table != nullptr ? 1 : 0;
    }
    const size_t slotsEnd = sizeof(velto::TypeShape) + type.slots.size() * sizeof(velto::SlotShape);
    const size_t elementsAt = velto::AlignUp(static_cast<uint32_t>(slotsEnd), alignof(velto::ElementShape));
    const size_t size = elementsAt + elementNum * sizeof(velto::ElementShape);
    OwnShape shape{std::vector<uint64_t>(size / sizeof(uint64_t) + 1)};
    auto *const at = reinterpret_cast<uint8_t *>(shape.storage.data());
    const velto::TypeShape head{static_cast<uint16_t>(type.size), 0, static_cast<uint16_t>(type.slots.size()),
                                static_cast<uint16_t>(elementsAt)};
    memcpy(at, &head, sizeof head);
    uint8_t element = 0;
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        velto::SlotShape one{slot.kind, static_cast<uint8_t>(slot.width), static_cast<uint16_t>(slot.offset),
                             static_cast<uint16_t>(velto::IsVectorKind(slot.kind) ? slot.countOffset : slot.length)};
        if (slot.table != nullptr) {
            const velto::ElementShape inside{slot.table->shape, slot.table->name};
            memcpy(at + elementsAt + element * sizeof inside, &inside, sizeof inside);
            one.width = element++;
        } else if (slot.kind == Kind::kString) {
            one.width = 1;
        }
        memcpy(at + sizeof head + i * sizeof one, &one, sizeof one);
    }
    return shape;
}

[[noreturn]] void Refuse(const std::string &what) {
    throw ReflectionError("not a description of services: " + what);
}

} // namespace

struct Interface::Parts {
    std::deque<std::string> texts;
    std::deque<std::vector<Choice>> choices;
    std::deque<std::vector<Member>> members;
    std::deque<std::vector<const meaning::Record *>> insides;
    std::deque<meaning::Record> records;
    std::deque<meaning::Method> meanings;
    std::deque<OwnShape> shapes;
    std::deque<Type> types;
    std::vector<Method> methods;

    const char *Keep(const Json &text) { return texts.emplace_back(text.get<std::string>()).c_str(); }
    std::string_view KeepOptional(const Json &object, const char *key) {
        return object.contains(key) ? std::string_view(Keep(object[key])) : std::string_view();
    }

    void ReadType(const Json &from);
    Slot ReadSlot(const Json &from);
    Member ReadMember(const Json &from);
    Value ReadValue(const Json &from);
    void ReadRecord(const Json &from);
    void ReadMethod(const char *service, const Json &from);
    const Type *FindOwnType(std::string_view name) const;
};

const Type *Interface::Parts::FindOwnType(std::string_view name) const {
    const auto found = std::ranges::find(types, name, [](const Type &type) { return std::string_view(type.name); });
    return found == types.end() ? nullptr : &*found;
}

Slot Interface::Parts::ReadSlot(const Json &from) {
    const auto kind = std::ranges::find(kKinds, from.at("kind").get<std::string>());
    if (kind == std::end(kKinds) || kind == std::begin(kKinds)) {
        Refuse("a slot of the kind " + from.at("kind").dump());
    }
    Slot slot{Keep(from.at("member")),
              from.at("count").is_null() ? nullptr : Keep(from.at("count")),
              static_cast<Kind>(kind - std::begin(kKinds)),
              0,
              0,
              from.at("width").get<uint32_t>(),
              from.at("length").get<uint32_t>(),
              nullptr};
    if (velto::IsTableKind(slot.kind)) {
        slot.table = FindOwnType(from.at("type").get<std::string>()); // of an earlier one, so that none holds itself
        if (slot.table == nullptr) {
            Refuse("a slot of an unknown type");
        }
    }
    const bool scalar = slot.kind == Kind::kScalar;
    if (slot.width > 8 || slot.length > 0xFFFF ||
        (scalar && (slot.width == 0 || (slot.width & (slot.width - 1)) != 0)) ||
        (velto::IsVectorKind(slot.kind) && slot.count == nullptr)) {
        Refuse(std::string("the size of ") + slot.name);
    }
    return slot;
}

// Members stand behind each other, each at a multiple of 8: the layout is this program's affair.
void Interface::Parts::ReadType(const Json &from) {
    Type type{Keep(from.at("name")), from.at("hash").get<uint32_t>(), 0, {}, {}, nullptr};
    uint64_t end = 0;
    const auto place = [&end](uint64_t size) {
        const uint64_t at = end;
        end += (size + 7) / 8 * 8;
        return static_cast<uint32_t>(std::min<uint64_t>(at, UINT32_MAX));
    };
    for (const Json &one : from.at("slots")) {
        Slot slot = ReadSlot(one);
        const bool pointer = slot.kind == Kind::kString || velto::IsVectorKind(slot.kind);
        if (velto::IsVectorKind(slot.kind)) {
            slot.countOffset = place(sizeof(uint32_t));
        }
        const uint64_t element = slot.ElementSize();
        slot.offset = place(pointer                                                   ? sizeof(void *)
                            : slot.kind == Kind::kScalar || slot.kind == Kind::kTable ? element
                                                                                      : element * slot.length);
        type.slots.push_back(slot);
    }
    if (end > 0xFFFF || type.slots.size() > 0x0FFF) {
        Refuse(std::string("the size of ") + type.name);
    }
    type.size = static_cast<uint32_t>(end);
    type.shape = shapes.emplace_back(ShapeOf(type)).Get();
    types.push_back(std::move(type));
}

Value Interface::Parts::ReadValue(const Json &from) {
    Value value;
    value.kind = meaning::KindNamed(from.at("kind").get<std::string>()).value_or(meaning::Kind::kNumber);
    value.least = from.value("least", uint64_t{0});
    value.most = from.value("most", UINT64_MAX);
    value.open = from.value("open", false);
    value.hasZero = from.contains("zero");
    value.zero = KeepOptional(from, "zero");
    value.zeroStandsFor = from.value("standsFor", uint64_t{0});
    value.notAbove = KeepOptional(from, "notAbove");
    value.notBelow = KeepOptional(from, "notBelow");
    value.matters = KeepOptional(from, "matters");
    value.mattersAt = from.value("mattersAt", uint64_t{0});
    std::vector<Choice> &named = choices.emplace_back();
    for (const Json &one : from.value("choices", Json::array())) {
        named.push_back({one.at("value").get<uint32_t>(), Keep(one.at("name")), Keep(one.at("sentence"))});
    }
    value.choices = named;
    return value;
}

Member Interface::Parts::ReadMember(const Json &from) {
    return {Keep(from.at("wire")), Keep(from.at("name")), ReadValue(from), Keep(from.at("sentence"))};
}

void Interface::Parts::ReadRecord(const Json &from) {
    const Type *const type = FindOwnType(from.at("type").get<std::string>());
    if (type == nullptr || from.at("members").size() != type->slots.size() ||
        from.at("inside").size() != type->slots.size()) {
        Refuse("a record of " + from.at("type").dump());
    }
    std::vector<Member> &own = members.emplace_back();
    std::vector<const meaning::Record *> &inside = insides.emplace_back();
    for (size_t i = 0; i < type->slots.size(); ++i) {
        own.push_back(ReadMember(from["members"][i]));
        const Json &number = from["inside"][i];
        const bool table = type->slots[i].table != nullptr;
        if (own.back().wire != type->slots[i].name || number.is_null() == table ||
            (table && records.at(number.get<size_t>()).type != std::string_view(type->slots[i].table->name))) {
            Refuse(std::string("the member ") + type->slots[i].name + " of " + type->name);
        }
        inside.push_back(table ? &records[number.get<size_t>()] : nullptr);
    }
    records.push_back({type->name, type->shape, own, inside});
}

void Interface::Parts::ReadMethod(const char *service, const Json &from) {
    const meaning::Record *const request = &records.at(from.at("request").get<size_t>());
    const meaning::Record *const response =
        from.at("response").is_null() ? nullptr : &records.at(from.at("response").get<size_t>());
    const char *const name = Keep(from.at("name"));
    const meaning::Method &method = meanings.emplace_back(
        meaning::Method{service, name, GroupNamed(from.at("group").get<std::string>()).value_or(Group::kCommands),
                        from.at("long").get<bool>() ? meaning::Duration::kLong : meaning::Duration::kShort,
                        Keep(from.at("sentence")), Keep(from.at("example")), request, response});
    methods.push_back({service, name, from.at("index").get<uint32_t>(), FindOwnType(request->type),
                       response == nullptr ? nullptr : FindOwnType(response->type), &method});
}

Interface::Interface(std::string_view reflection) : parts_(std::make_unique<Parts>()) {
    try {
        const Json json = ParseJson(reflection);
        for (const Json &type : json.at("types")) {
            parts_->ReadType(type);
        }
        for (const Json &record : json.at("records")) {
            parts_->ReadRecord(record);
        }
        for (const Json &service : json.at("services")) {
            const char *const name = parts_->Keep(service.at("name"));
            for (const Json &method : service.at("methods")) {
                parts_->ReadMethod(name, method);
            }
        }
    } catch (const ReflectionError &) {
        throw;
    } catch (const std::exception &error) { // of JSON, or a number of a record that is none
        Refuse(error.what());
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
