// Each line of types/ enters its type here, so this stands before any header that may include one.
#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, inline) LIST_TYPE(type)
#define LIST_TYPE(type)                                                                                                \
    template <>                                                                                                        \
    constexpr bool host::describe::kIsListed<Tarn_sys_diag_##type> = true;                                             \
    static const bool listed_##type = host::describe::List<Tarn_sys_diag_##type>();

#include "host/describe/types.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <unordered_map>

#include "velto/layout.h"
#include "velto/shape.h"

namespace host::describe {

namespace {

struct ListedType {
    const char *name;
    uint32_t hash;
    const velto::TypeShape *shape;
    const velto::SlotName *slotNames;
};
std::vector<ListedType> listedTypes; // in the order of declaration: elements stand before what holds them

template <class Record>
bool List() {
    using Table = velto::Table<Record>;
    listedTypes.push_back({Table::kName, velto::kTypeHash<Record>, &velto::Shape<Record>::kType, Table::kSlotNames});
    return true;
}

} // namespace

template <class Record>
constexpr bool kIsListed = false;

} // namespace host::describe

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include "host/meaning/methods.h"

namespace host::describe {

#define EXPECT_LISTED(type)                                                                                            \
    static_assert(kIsListed<Tarn_sys_diag_##type>, #type " was declared before this file could list it");
#define TARN_SERVICE_METHOD(service, method, request, response) EXPECT_LISTED(request) EXPECT_LISTED(response)
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request) EXPECT_LISTED(request)
#include "host/meaning/all_methods.h"

uint32_t FixedForm::ElementSize() const {
    return velto::AlignUp(end, 4);
}

uint32_t FixedForm::Size() const {
    return velto::AlignUp(4 + end, 8);
}

namespace {

Slot DescribeSlot(const velto::TypeShape &shape, const velto::SlotShape &from, const velto::SlotName &name,
                  const std::unordered_map<const velto::TypeShape *, const Type *> &known) {
    Slot slot{name.member, name.count, from.kind, from.offset, 0, from.width, from.length, nullptr};
    if (velto::IsVectorKind(from.kind)) {
        slot.countOffset = from.length;
        slot.length = 0;
    }
    if (velto::IsTableKind(from.kind)) {
        slot.table = known.at(shape.Element(from).type);
        slot.width = 0;
    }
    return slot;
}

uint32_t FixedSize(const Slot &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return slot.width;
    case Kind::kTable:
        return 4 + slot.table->fixed->end;
    case Kind::kTableRun:
        return 8 + slot.length * (4 + slot.table->fixed->ElementSize());
    default:
        return 8 + slot.length * slot.width;
    }
}

std::optional<FixedForm> FixedFormOf(const std::vector<Slot> &slots) {
    FixedForm form{{}, 4, 0, 0};
    for (const Slot &slot : slots) {
        const bool owns = slot.kind == Kind::kString || velto::IsVectorKind(slot.kind);
        if (owns || (slot.table != nullptr && !slot.table->fixed)) {
            return std::nullopt;
        }
        const uint32_t size = FixedSize(slot);
        form.offsets.push_back(velto::AlignUp(form.dataEnd, std::min(size, 4u)));
        form.dataEnd = form.offsets.back() + size;
    }
    form.vtable = velto::AlignUp(form.dataEnd, 4);
    form.end = form.vtable + 4 + 2 * static_cast<uint32_t>(slots.size());
    return form;
}

} // namespace

const std::vector<Type> &Types() {
    static const auto types = [] {
        std::vector<Type> list;
        std::unordered_map<const velto::TypeShape *, const Type *> known;
        list.reserve(listedTypes.size()); // the types point to each other
        for (const ListedType &from : listedTypes) {
            Type type{from.name, from.hash, from.shape->size, {}, {}, from.shape};
            for (uint32_t i = 0; i < from.shape->slotNum; ++i) {
                type.slots.push_back(DescribeSlot(*from.shape, from.shape->Slot(i), from.slotNames[i], known));
            }
            type.fixed = FixedFormOf(type.slots);
            list.push_back(std::move(type));
            known.emplace(from.shape, &list.back());
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
        const auto add = [&list](const char *service, const char *name, const char *request, const char *response,
                                 const meaning::Method *meaning) {
            const bool next = !list.empty() && std::string_view(list.back().service) == service;
            list.push_back({service, name, next ? list.back().index + 1 : 1, FindType(request),
                            response == nullptr ? nullptr : FindType(response), meaning});
        };
#define TARN_SERVICE_METHOD(service, method, request, response)                                                        \
    add(#service, #method, #request, #response, &methods::method);
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request)                                                         \
    add(#service, #method, #request, nullptr, &methods::method);
#include "host/meaning/all_methods.h"
        return list;
    }();
    return methods;
}

const Method *FindMethod(std::string_view name) {
    return FindMethod(Methods(), name);
}

const Method *FindMethod(const std::vector<Method> &methods, std::string_view name) {
    const size_t dot = name.find('.');
    const std::string_view service = dot == name.npos ? "" : name.substr(0, dot);
    const std::string_view method = dot == name.npos ? name : name.substr(dot + 1);
    const auto found = std::find_if(methods.begin(), methods.end(), [&](const Method &candidate) {
        return candidate.name == method && (dot == name.npos || candidate.service == service);
    });
    return found == methods.end() ? nullptr : &*found;
}

namespace {

void AddRecords(const meaning::Record &record, std::unordered_map<std::string_view, const meaning::Record *> &records) {
    records.emplace(record.type, &record);
    for (const meaning::Record *inside : record.inside) {
        if (inside != nullptr) {
            AddRecords(*inside, records);
        }
    }
}

} // namespace

const meaning::Record *MeaningOf(const Type &type) {
    static const auto byType = [] {
        std::unordered_map<std::string_view, const meaning::Record *> records;
        for (const Method &method : Methods()) {
            AddRecords(*method.meaning->request, records);
            if (method.meaning->response != nullptr) {
                AddRecords(*method.meaning->response, records);
            }
        }
        return records;
    }();
    const auto found = byType.find(type.name);
    return found == byType.end() ? nullptr : found->second;
}

std::span<const meaning::Service *const> Meanings() {
    static constexpr const meaning::Service *kServices[] = {&meaning::kTarnd, &meaning::kTarndAgent, &meaning::kAgent,
                                                            &meaning::kMaster};
    return kServices;
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

// How many characters must be inserted, removed, replaced or exchanged with their neighbour to make one name the other,
// whatever their case.
size_t EditDistance(std::string_view left, std::string_view right) {
    std::vector<size_t> row(right.size() + 1), above(row.size()), twoAbove(row.size());
    std::iota(row.begin(), row.end(), size_t{0});
    const auto same = [&](size_t i, size_t k) { return Lower(left[i - 1]) == Lower(right[k - 1]); };
    for (size_t i = 1; i <= left.size(); ++i) {
        twoAbove.swap(above);
        above.swap(row);
        row[0] = i;
        for (size_t k = 1; k <= right.size(); ++k) {
            row[k] = std::min({above[k] + 1, row[k - 1] + 1, above[k - 1] + (same(i, k) ? 0 : 1)});
            if (i > 1 && k > 1 && same(i, k - 1) && same(i - 1, k)) {
                row[k] = std::min(row[k], twoAbove[k - 2] + 1);
            }
        }
    }
    return row.back();
}

} // namespace

bool Contains(std::string_view text, std::string_view part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char left, char right) { return Lower(left) == Lower(right); }) != text.end();
}

std::vector<std::string> ClosestNames(std::string_view wanted, const std::vector<std::string_view> &names) {
    constexpr size_t kMost = 3;
    constexpr size_t kSpread = 2;    // a name that is much further off than the best was not meant
    constexpr size_t kShort = 4;     // two letters are half of it
    constexpr size_t kLongest = 128; // what is longer is no misspelt name, and the distance takes quadratic time
    std::vector<std::pair<size_t, std::string_view>> close;
    if (wanted.empty() || wanted.size() > kLongest) {
        return {};
    }
    for (const std::string_view name : names) {
        const size_t distance = EditDistance(wanted, name);
        if (distance <= std::max<size_t>(wanted.size() <= kShort ? 1 : 2, wanted.size() / 3)) {
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
