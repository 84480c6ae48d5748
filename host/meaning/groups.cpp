#include "host/meaning/groups.h"

#include <algorithm>
#include <iterator>

#include "host/meaning/agent.h"
#include "host/meaning/master.h"
#include "host/meaning/tarnd.h"
#include "host/meaning/tarnd_agent.h"

namespace host {

namespace {

struct Grouped {
    std::string_view method;
    Group group;
};

// Of the lists only this: a program that serves one of them need not carry the others.
constexpr Grouped kOwnMethods[] = {{"Health", Group::kReading},    {"Status", Group::kReading},
                                   {"Describe", Group::kReading},  {"Events", Group::kReading},
                                   {"Overloads", Group::kReading}, {"Figures", Group::kReading},
                                   {"Settings", Group::kReading},  {"Capture", Group::kMemory}};

constexpr auto kMethods = [] {
    auto methods = std::to_array<Grouped>({
#define TARN_SERVICE_METHOD(service, method, request, response)                                                        \
    {#method, meaning::kTextOf<struct meaning::method##_>.group},
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request) TARN_SERVICE_METHOD(service, method, request, )
#include "host/meaning/all_methods.h"
    });
    std::ranges::sort(methods, {}, &Grouped::method);
    return methods;
}();
static_assert(std::ranges::adjacent_find(kMethods, {}, &Grouped::method) == kMethods.end(),
              "two methods have one name");

} // namespace

bool IsOwnMethod(std::string_view method) {
    return std::ranges::find(kOwnMethods, method, &Grouped::method) != std::end(kOwnMethods);
}

std::string_view NameOf(Group group) {
    constexpr std::string_view kNames[] = {"reading", "memory", "settings", "commands", "agents"};
    static_assert(std::size(kNames) == std::size(kGroups));
    return kNames[static_cast<size_t>(group)];
}

std::optional<Group> GroupNamed(std::string_view name) {
    const auto found = std::ranges::find(kGroups, name, NameOf);
    return found == std::end(kGroups) ? std::nullopt : std::optional(*found);
}

Group GroupOf(std::string_view method) {
    const auto *const own = std::ranges::find(kOwnMethods, method, &Grouped::method);
    if (own != std::end(kOwnMethods)) {
        return own->group;
    }
    const auto found = std::ranges::lower_bound(kMethods, method, {}, &Grouped::method);
    return found != kMethods.end() && found->method == method ? found->group : Group::kCommands;
}

} // namespace host
