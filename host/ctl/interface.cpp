// list, and the interface by name.
#include "host/ctl/interface.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>

#include "host/ctl/print.h"
#include "host/ctl/remote.h"
#include "host/meaning/groups.h"

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

template <class... More>
std::vector<std::string_view> Joined(std::vector<std::string_view> names, const More &...more) {
    (names.insert(names.end(), more.begin(), more.end()), ...);
    return names;
}

std::string Suggestion(std::string_view name, const std::vector<std::string_view> &names) {
    const std::string text = DidYouMean(name, names);
    return text.empty() ? "; tarnctl list shows all" : text;
}

bool HasMember(const host::meaning::Record *record, std::string_view word) {
    if (record == nullptr) {
        return false;
    }
    return std::ranges::any_of(record->members,
                               [&](const host::meaning::Member &member) {
                                   return Contains(member.name, word) || Contains(member.wire, word);
                               }) ||
           std::ranges::any_of(record->inside, [&](const auto *inside) { return HasMember(inside, word); });
}

// A service's name is meant as a whole; any other word may stand anywhere.
bool IsMeant(const Method &method, const std::string &word) {
    if (const auto &services = Services(); std::ranges::find(services, word) != services.end()) {
        return method.service == word;
    }
    const host::meaning::Method &meaning = *method.meaning;
    return Contains(method.name, word) || Contains(meaning.sentence, word) || Contains(NameOf(meaning.group), word) ||
           HasMember(meaning.request, word) || HasMember(meaning.response, word);
}

using MethodList = std::vector<const Method *>;

constexpr std::string_view kServerOnly = "(only its server knows it)";

bool IsKnownHere(const Method &method) {
    return FindMethod(fmt::format("{}.{}", method.service, method.name)) == &method;
}

std::string Marked(const Method &method, std::string_view text) {
    return IsKnownHere(method) ? std::string(text) : fmt::format("{} {}", text, kServerOnly);
}

// In the order of the interface.
void PrintByIndex(const MethodList &methods, const Style &style) {
    Table table;
    for (const Method *method : methods) {
        table.Add({std::to_string(method->index), method->name, method->request->name,
                   Marked(*method, ResponseName(*method))});
    }
    table.Print(std::cout, style, 2);
}

void PrintByGroup(const MethodList &methods, const Style &style) {
    Table table;
    for (const host::Group group : host::kGroups) {
        const auto in = [group](const Method *method) { return method->meaning->group == group; };
        if (std::ranges::any_of(methods, in)) {
            table.Add({std::string(NameOf(group))});
        }
        for (const Method *method : methods) {
            if (in(method)) {
                table.Add(
                    {fmt::format("  {}", method->name), Marked(*method, FirstSentence(method->meaning->sentence))});
            }
        }
    }
    table.Print(std::cout, style, 2);
}

void PrintService(const host::meaning::Service &service, const MethodList &methods, View view, const Style &style) {
    MethodList own;
    std::ranges::copy_if(methods, std::back_inserter(own),
                         [&](const Method *method) { return std::string_view(method->service) == service.name; });
    if (own.empty()) {
        return;
    }
    if (view == View::kWire) {
        std::cout << service.name << "\n";
        PrintByIndex(own, style);
    } else {
        std::cout << service.name << ": " << FirstSentence(service.sentence) << "\n";
        PrintByGroup(own, style);
    }
}

} // namespace

std::string_view FirstSentence(std::string_view text) {
    const size_t end = text.find(". ");
    return end == text.npos ? text : text.substr(0, end + 1);
}

std::string_view ResponseName(const Method &method) {
    return method.response == nullptr ? "(no reply)" : method.response->name;
}

Json MethodJson(const Method &method) {
    const host::meaning::Method &meaning = *method.meaning;
    return {{"service", method.service},
            {"method", method.name},
            {"index", method.index},
            {"group", NameOf(meaning.group)},
            {"sentence", meaning.sentence},
            {"long", meaning.duration == host::meaning::Duration::kLong},
            {"example", meaning.example},
            {"request", method.request->name},
            {"response", method.response == nullptr ? Json() : Json(method.response->name)}};
}

const Type &RequireType(const std::string &name) {
    const Type *const type = FindType(name);
    if (type == nullptr) {
        throw Failure(kUsage, fmt::format("{}: no such type{}", name, Suggestion(name, TypeNames())));
    }
    return *type;
}

const Method &RequireMethod(const std::string &name, Remote &remote) {
    const Method *const method = FindMethod(name) != nullptr ? FindMethod(name) : remote.FindMethod(name);
    return method != nullptr ? *method : RequireMethod(name);
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

void List(const std::filesystem::path &runDir, const std::string &word, View view, bool json) {
    Remote remote(runDir);
    MethodList methods = remote.Methods();
    std::ranges::transform(Methods(), std::inserter(methods, methods.begin()),
                           [](const Method &method) { return &method; });
    std::erase_if(methods, [&](const Method *method) { return !IsMeant(*method, word); });
    if (methods.empty()) {
        throw Failure(kUsage, fmt::format("{}: no service, and in no method's name, sentence or members{}", word,
                                          Suggestion(word, Joined(Services(), MethodNames()))));
    }
    if (json) {
        Json all = Json::array();
        std::ranges::transform(methods, std::back_inserter(all),
                               [](const Method *method) { return MethodJson(*method); });
        std::cout << all.dump(2) << "\n";
        return;
    }
    const Output output;
    for (const host::meaning::Service *service : Meanings()) {
        PrintService(*service, methods, view, output.GetStyle());
        std::erase_if(methods,
                      [&](const Method *method) { return method->service == std::string_view(service->name); });
    }
    while (!methods.empty()) { // of services that are not known here
        const std::string_view service = methods.front()->service;
        PrintService({service.data(), kServerOnly, {}}, methods, view, output.GetStyle());
        std::erase_if(methods, [&](const Method *method) { return method->service == service; });
    }
}

void Describe(const std::filesystem::path &runDir, const std::string &name, View view, bool json) {
    Remote remote(runDir);
    if (const Method *const method = FindMethod(name)) {
        DescribeMethod(*method, view, json);
    } else if (const Type *const type = FindType(name)) {
        DescribeType(*type, view, json);
    } else if (const Method *const learnt = remote.FindMethod(name)) {
        DescribeMethod(*learnt, view, json);
    } else {
        throw Failure(kUsage, fmt::format("{}: no such method or type{}", name,
                                          Suggestion(name, Joined(MethodNames(), TypeNames()))));
    }
}

} // namespace ctl
