#include "host/meaning/reflect.h"

#include <map>
#include <set>
#include <tuple>

#include <nlohmann/json.hpp>

#include "host/meaning/groups.h"
#include "host/meaning/unit.h"
#include "velto/shape.h"

namespace host::meaning {

namespace {

using Json = nlohmann::ordered_json;

Json ChoicesJson(const Value &value) {
    Json choices = Json::array();
    for (const Choice &one : value.choices) {
        choices.push_back({{"value", one.value}, {"name", one.name}, {"sentence", one.sentence}});
    }
    return choices;
}

Json TypeJson(const Record &record) {
    Json slots = Json::array();
    for (uint32_t i = 0; i < record.shape->slotNum; ++i) {
        const velto::SlotShape &slot = record.shape->Slot(i);
        const velto::SlotName &name = record.slots[i];
        const Record *const inside = record.inside[i];
        slots.push_back({{"member", name.member},
                         {"count", name.count == nullptr ? Json() : Json(name.count)},
                         {"kind", kSlotKinds[static_cast<size_t>(slot.kind)]},
                         {"width", inside == nullptr ? slot.width : 0},
                         {"length", velto::IsVectorKind(slot.kind) ? 0 : slot.length},
                         {"type", inside == nullptr ? Json() : Json(inside->type)}});
    }
    return {{"name", record.type}, {"hash", velto::TypeHash(record.type)}, {"slots", std::move(slots)}};
}

// Gives records and types their numbers, each once, what is inside before what holds it.
class Writer {
public:
    Json Write(std::span<const Service *const> services) {
        Json list = Json::array();
        for (const Service *service : services) {
            Json methods = Json::array();
            for (const Method *method : service->methods) {
                methods.push_back(MethodJson(*method, methods.size() + 1));
            }
            list.push_back({{"name", service->name}, {"sentence", service->sentence}, {"methods", std::move(methods)}});
        }
        return {{"services", std::move(list)}, {"records", std::move(records_)}, {"types", std::move(types_)}};
    }

private:
    Json MethodJson(const Method &method, size_t index) {
        return {{"name", method.name},
                {"index", index},
                {"group", host::NameOf(method.group)},
                {"long", method.duration == Duration::kLong},
                {"sentence", method.sentence},
                {"example", method.example},
                {"request", Number(*method.request)},
                {"response", method.response == nullptr ? Json() : Json(Number(*method.response))}};
    }

    size_t Number(const Record &record) {
        Json inside = Json::array();
        for (const Record *one : record.inside) {
            inside.push_back(one == nullptr ? Json() : Json(Number(*one)));
        }
        const auto [found, added] =
            numbers_.try_emplace({record.type, record.members.data(), inside.dump()}, records_.size());
        if (added) {
            Json members = Json::array();
            for (const Member &member : record.members) {
                members.push_back(MeaningJson(member));
            }
            if (known_.insert(record.type).second) {
                types_.push_back(TypeJson(record));
            }
            records_.push_back({{"type", record.type}, {"members", std::move(members)}, {"inside", std::move(inside)}});
        }
        return found->second;
    }

    std::map<std::tuple<std::string, const Member *, std::string>, size_t> numbers_;
    std::set<std::string> known_;
    Json records_ = Json::array(), types_ = Json::array();
};

} // namespace

Json MeaningJson(const Member &member) {
    const Value &value = member.value;
    Json json{
        {"wire", member.wire}, {"name", member.name}, {"kind", NameOf(value.kind)}, {"sentence", member.sentence}};
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

std::string Reflect(std::span<const Service *const> services) {
    return Writer().Write(services).dump();
}

} // namespace host::meaning
