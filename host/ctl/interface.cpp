// list and describe: the interface as the library describes it.
#include <fmt/format.h>

#include <algorithm>
#include <iostream>

#include "host/ctl/commands.h"
#include "host/ctl/meaning.h"
#include "host/ctl/print.h"

namespace ctl {

using namespace host::describe;

namespace {

std::vector<std::string_view> TypeNames() {
    std::vector<std::string_view> names;
    for (const Type &type : Types()) {
        names.emplace_back(type.name);
    }
    return names;
}

std::vector<std::string_view> MethodNames() {
    std::vector<std::string_view> names;
    for (const Method &method : Methods()) {
        names.emplace_back(method.name);
    }
    return names;
}

std::string Suggestion(std::string_view name, const std::vector<std::string_view> &names) {
    const std::string text = DidYouMean(name, names);
    return text.empty() ? "; tarnctl list shows all" : text;
}

const char *ResponseName(const Method &method) {
    return method.response == nullptr ? "(no reply)" : method.response->name;
}

Json MethodJson(const Method &method) {
    Json json{{"service", method.service}, {"method", method.name}, {"index", method.index}};
    json["request"] = method.request->name;
    json["response"] = method.response == nullptr ? Json() : Json(method.response->name);
    return json;
}

Json TypeJson(const Type &type) {
    Json json{{"type", type.name}, {"hash", fmt::format("0x{:08X}", type.hash)}, {"nativeSize", type.size}};
    json["fixedSize"] = type.fixed ? Json(type.fixed->Size()) : Json();
    json["fields"] = Json::array();
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        Json field{{"slot", i}, {"name", slot.name}, {"kind", KindText(slot)}, {"offset", slot.offset}};
        field["count"] = slot.count == nullptr ? Json() : Json(slot.count);
        field["fixedOffset"] = type.fixed ? Json(type.fixed->offsets[i]) : Json();
        json["fields"].push_back(std::move(field));
    }
    return json;
}

std::string MeaningText(const Meaning &meaning) {
    const std::string label = meaning.label == nullptr ? "" : meaning.label, unit = NameOf(meaning.unit);
    return label + (label.empty() || unit.empty() ? "" : ", ") + unit;
}

bool HasMeanings(const Type &type) {
    return std::any_of(type.slots.begin(), type.slots.end(),
                       [&type](const Slot &slot) { return !MeaningText(MeaningOf(type, slot)).empty(); });
}

void PrintType(const Type &type) {
    const std::string fixed = type.fixed ? fmt::format("fixed form {} bytes", type.fixed->Size()) : "no fixed form";
    std::cout << fmt::format("{}  hash 0x{:08X}, record {} bytes, {}\n", type.name, type.hash, type.size, fixed);
    Columns columns;
    columns.Add({"slot", "field", "kind", "at", "fixed", "count", HasMeanings(type) ? "meaning" : ""});
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        columns.Add({std::to_string(i), slot.name, KindText(slot), std::to_string(slot.offset),
                     type.fixed ? std::to_string(type.fixed->offsets[i]) : "-", slot.count == nullptr ? "" : slot.count,
                     MeaningText(MeaningOf(type, slot))});
    }
    if (type.slots.empty()) {
        std::cout << "  no fields\n";
    } else {
        columns.Print(std::cout, 2);
    }
}

// The types of a method or a type, with those inside them, each once.
std::vector<const Type *> TypesToShow(std::initializer_list<const Type *> roots) {
    std::vector<const Type *> types;
    for (const Type *root : roots) {
        for (const Type *type : root == nullptr ? std::vector<const Type *>() : TypesWithin(*root)) {
            if (std::find(types.begin(), types.end(), type) == types.end()) {
                types.push_back(type);
            }
        }
    }
    return types;
}

} // namespace

const Type &RequireType(const std::string &name) {
    const Type *const type = FindType(name);
    if (type == nullptr) {
        throw Failure(kUsage, fmt::format("{}: no such type{}", name, Suggestion(name, TypeNames())));
    }
    return *type;
}

const Method &RequireMethod(const std::string &name) {
    const Method *const method = FindMethod(name);
    if (method == nullptr) {
        const std::string bare = name.substr(name.find('.') + 1);
        throw Failure(kUsage, fmt::format("{}: no such method{}", name, Suggestion(bare, MethodNames())));
    }
    return *method;
}

void RequireService(const std::string &name) {
    if (std::find(Services().begin(), Services().end(), name) == Services().end()) {
        throw Failure(kUsage, fmt::format("{}: no such service{}", name, DidYouMean(name, Services())));
    }
}

void List(const std::string &service, bool json) {
    if (!service.empty()) {
        RequireService(service);
    }
    Json all = Json::array();
    for (const std::string_view name : Services()) {
        if (!service.empty() && name != service) {
            continue;
        }
        Columns columns;
        for (const Method &method : Methods()) {
            if (method.service == name) {
                columns.Add({std::to_string(method.index), method.name, method.request->name, ResponseName(method)});
                all.push_back(MethodJson(method));
            }
        }
        if (!json) {
            std::cout << name << "\n";
            columns.Print(std::cout, 2);
        }
    }
    if (json) {
        std::cout << all.dump(2) << "\n";
    }
}

void Describe(const std::string &name, bool json) {
    const Method *const method = FindMethod(name);
    const Type *const type = method == nullptr ? FindType(name) : nullptr;
    if (method == nullptr && type == nullptr) {
        std::vector<std::string_view> names = MethodNames();
        const auto types = TypeNames();
        names.insert(names.end(), types.begin(), types.end());
        throw Failure(kUsage, fmt::format("{}: no such method or type{}", name, Suggestion(name, names)));
    }
    const auto types = method != nullptr ? TypesToShow({method->request, method->response}) : TypesToShow({type});
    if (json) {
        Json result = method != nullptr ? MethodJson(*method) : Json::object();
        for (const Type *shown : types) {
            result["types"].push_back(TypeJson(*shown));
        }
        std::cout << result.dump(2) << "\n";
        return;
    }
    if (method != nullptr) {
        std::cout << fmt::format("{}.{}  index {}: {} -> {}\n", method->service, method->name, method->index,
                                 method->request->name, ResponseName(*method));
    }
    for (const Type *shown : types) {
        std::cout << (method != nullptr || shown != types.front() ? "\n" : "");
        PrintType(*shown);
    }
}

} // namespace ctl
