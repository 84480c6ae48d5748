#include "host/describe/types.h"

#include "host/describe/unit.h"

TARN_UNIT()

namespace {
// Another unit of the same program may register its types too; this unit's own are those between the two marks.
const auto kFirst = static_cast<std::ptrdiff_t>(velto::Registry().size());
} // namespace

#include "types/tarnd.h"
#include "types/tarnd_agent.h"

namespace {
const auto kEnd = static_cast<std::ptrdiff_t>(velto::Registry().size());
} // namespace

#include <algorithm>
#include <cctype>
#include <numeric>
#include <unordered_map>

namespace host::describe {

platform::Binding &UnitBinding() {
    return Unit::binding;
}

namespace {

Type Describe(const velto::TypeInfo &codec, const std::unordered_map<const velto::TypeShape *, const Type *> &known) {
    const velto::TypeShape &shape = *codec.shape;
    Type type{codec.name, codec.hash, shape.size, {}, &codec};
    for (uint32_t i = 0; i < shape.slotNum; ++i) {
        const velto::SlotShape &from = shape.Slot(i);
        Slot slot{codec.slotNames[i].member,
                  codec.slotNames[i].count,
                  from.kind,
                  from.offset,
                  0,
                  from.width,
                  from.length,
                  nullptr};
        if (velto::IsVectorKind(from.kind)) {
            slot.countOffset = from.length;
            slot.length = 0;
        }
        if (velto::IsTableKind(from.kind)) {
            slot.table = known.at(shape.Element(from).type);
            slot.width = 0;
        }
        type.slots.push_back(slot);
    }
    return type;
}

} // namespace

const std::vector<Type> &Types() {
    static const auto codecs =
        std::vector<velto::TypeInfo>(velto::Registry().begin() + kFirst, velto::Registry().begin() + kEnd);
    static const auto types = [] {
        std::vector<Type> list;
        std::unordered_map<const velto::TypeShape *, const Type *> known;
        list.reserve(codecs.size()); // the types point to each other
        for (const velto::TypeInfo &codec : codecs) {
            list.push_back(Describe(codec, known));
            known.emplace(codec.shape, &list.back());
        }
        return list;
    }();
    return types;
}

const Type *FindType(std::string_view name) {
    static const auto byName = [] {
        std::unordered_map<std::string_view, const Type *> map;
        for (const Type &type : Types()) {
            map.emplace(type.name, &type);
        }
        return map;
    }();
    constexpr std::string_view kPrefix = "Tarn_sys_diag_";
    if (name.starts_with(kPrefix)) {
        name.remove_prefix(kPrefix.size());
    }
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

const std::vector<Method> &Methods() {
    static const std::vector<Method> methods = [] {
        std::vector<Method> list;
        const auto add = [&list](const char *service, const char *name, const char *request, const char *response) {
            const bool next = !list.empty() && std::string_view(list.back().service) == service;
            list.push_back({service, name, next ? list.back().index + 1 : 1, FindType(request),
                            response == nullptr ? nullptr : FindType(response)});
        };
        const char *service = "TarnSysdiagTarnd";
#define TARN_METHOD(method, request, response) add(service, #method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(service, #method, #request, nullptr);
#include "server/tarnd_methods.h"
        service = "TarnSysdiagTarndAgent";
#define TARN_METHOD(method, request, response) add(service, #method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(service, #method, #request, nullptr);
#include "server/tarnd_agent_methods.h"
        service = "TarnSysdiagAgent";
#define TARN_METHOD(method, request, response) add(service, #method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(service, #method, #request, nullptr);
#include "client/agent_methods.h"
        service = "TarnSysdiagMaster";
#define TARN_METHOD(method, request, response) add(service, #method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(service, #method, #request, nullptr);
#include "client/master_methods.h"
        return list;
    }();
    return methods;
}

const Method *FindMethod(std::string_view name) {
    const size_t dot = name.find('.');
    const std::string_view service = dot == name.npos ? "" : name.substr(0, dot);
    const std::string_view method = dot == name.npos ? name : name.substr(dot + 1);
    const auto found = std::find_if(Methods().begin(), Methods().end(), [&](const Method &candidate) {
        return candidate.name == method && (dot == name.npos || candidate.service == service);
    });
    return found == Methods().end() ? nullptr : &*found;
}

const std::vector<std::string_view> &Services() {
    static const std::vector<std::string_view> services = [] {
        std::vector<std::string_view> names;
        for (const Method &method : Methods()) {
            if (names.empty() || names.back() != method.service) {
                names.emplace_back(method.service);
            }
        }
        return names;
    }();
    return services;
}

std::string KindText(const Slot &slot) {
    const auto array = [&slot](const std::string &element) {
        return element + "[" + std::to_string(slot.length) + "]";
    };
    switch (slot.kind) {
    case Kind::kScalar:
        return "u" + std::to_string(8 * slot.width);
    case Kind::kString:
        return "string";
    case Kind::kBytes:
        return array("bytes");
    case Kind::kArray64:
        return array("u64");
    case Kind::kTable:
        return slot.table->name;
    case Kind::kTableRun:
        return array(slot.table->name);
    case Kind::kByteVector:
        return "vector of bytes";
    case Kind::kVector32:
        return "vector of u32";
    case Kind::kTableVector:
        return std::string("vector of ") + slot.table->name;
    default:
        return "?";
    }
}

std::vector<const Type *> TypesWithin(const Type &type) {
    std::vector<const Type *> types{&type};
    for (size_t next = 0; next < types.size(); ++next) {
        for (const Slot &slot : types[next]->slots) {
            if (slot.table != nullptr && std::find(types.begin(), types.end(), slot.table) == types.end()) {
                types.push_back(slot.table);
            }
        }
    }
    return types;
}

namespace {

char Lower(char character) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

// How many characters must be inserted, removed or replaced to make one name the other, whatever their case.
size_t EditDistance(std::string_view left, std::string_view right) {
    std::vector<size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= left.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t k = 1; k <= right.size(); ++k) {
            const size_t replaced = diagonal + (Lower(left[i - 1]) == Lower(right[k - 1]) ? 0 : 1);
            diagonal = row[k];
            row[k] = std::min({row[k] + 1, row[k - 1] + 1, replaced});
        }
    }
    return row.back();
}

bool Contains(std::string_view text, std::string_view part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char left, char right) { return Lower(left) == Lower(right); }) != text.end();
}

} // namespace

std::vector<std::string> ClosestNames(std::string_view wanted, const std::vector<std::string_view> &names) {
    constexpr size_t kMost = 3;
    constexpr size_t kSpread = 2;    // a name that is much further off than the best was not meant
    constexpr size_t kLongest = 128; // what is longer is no misspelt name, and the distance takes quadratic time
    std::vector<std::pair<size_t, std::string_view>> close;
    if (wanted.empty() || wanted.size() > kLongest) {
        return {};
    }
    for (const std::string_view name : names) {
        const size_t distance = EditDistance(wanted, name);
        if (distance <= std::max<size_t>(2, wanted.size() / 3)) {
            close.emplace_back(distance, name);
        } else if (wanted.size() >= 3 && Contains(name, wanted)) {
            close.emplace_back(wanted.size(), name);
        }
    }
    std::stable_sort(close.begin(), close.end(), [](auto &left, auto &right) { return left.first < right.first; });
    std::vector<std::string> best;
    for (size_t i = 0; i < close.size() && i < kMost && close[i].first <= close[0].first + kSpread; ++i) {
        best.emplace_back(close[i].second);
    }
    return best;
}

std::string DidYouMean(std::string_view wanted, const std::vector<std::string_view> &names) {
    std::string text;
    for (const std::string &name : ClosestNames(wanted, names)) {
        text += (text.empty() ? "; did you mean " : ", ") + name;
    }
    if (!text.empty()) {
        return text + "?";
    }
    constexpr size_t kFew = 20;
    for (size_t i = 0; i < names.size() && names.size() <= kFew; ++i) {
        text += (i == 0 ? "; expected " : ", ") + std::string(names[i]);
    }
    return text;
}

} // namespace host::describe
