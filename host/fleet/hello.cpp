#include "host/fleet/hello.h"

#include <algorithm>

#include "host/describe/moment.h"
#include "host/fleet/wire.h"

namespace fleet {

using Json = nlohmann::ordered_json;

std::string Hello::Text(const char *member) const {
    const auto found = said.find(member);
    return found == said.end() || !found->is_string() ? "?" : found->get<std::string>();
}

uint64_t Hello::Number(const char *member) const {
    const auto found = said.find(member);
    return found == said.end() || !found->is_number_unsigned() ? 0 : found->get<uint64_t>();
}

bool Hello::IsSilent(std::chrono::system_clock::time_point now) const {
    constexpr std::chrono::milliseconds kMost = std::chrono::hours(24), kOnTheWay{5000};
    const auto every = std::chrono::milliseconds(std::min(Number("hello_ms"), static_cast<uint64_t>(kMost.count())));
    return now - seen > 2 * every + kOnTheWay;
}

std::string Hello::Health(std::chrono::system_clock::time_point now) const {
    return IsSilent(now) ? "silent" : Text("health");
}

Json Hello::Row(std::chrono::system_clock::time_point now) const {
    Json row = said;
    row["device"] = device;
    row["health"] = Health(now);
    row["seen"] = host::describe::Rfc3339(seen);
    return row;
}

std::vector<Hello> Hellos(Connection &connection) {
    std::vector<Hello> hellos;
    connection.Read(kHelloStream, SubjectOf("*", "hello"), {}, [&](const Message &message) {
        Json said = Json::parse(message.Payload(), nullptr, false);
        if (said.is_object()) {
            hellos.push_back({DeviceOf(message.Subject()), message.Time(), std::move(said)});
        }
    });
    std::ranges::sort(hellos, {}, &Hello::device);
    return hellos;
}

} // namespace fleet
