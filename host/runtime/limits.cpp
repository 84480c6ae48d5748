#include "host/runtime/limits.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace host {
namespace {

// One of the two pointers leads to the limit.
struct Entry {
    const char *name;
    uint32_t Limits::*count;
    Limits::Milliseconds Limits::*time;
    const char *meaning;
};

constexpr Entry kEntries[] = {
    {"message_bytes", &Limits::messageBytes, nullptr, "bytes of a request, or of a reply that a server sends"},
    {"decoded_bytes", &Limits::decodedBytes, nullptr, "bytes that decoding a message may allocate"},
    {"deadline_ms", nullptr, &Limits::deadline, "deadline of a call that names none"},
    {"max_deadline_ms", nullptr, &Limits::maxDeadline, "longest deadline"},
    {"reply_bytes", &Limits::replyBytes, nullptr, "bytes of a reply that a client takes"},
    {"connections", &Limits::connections, nullptr, "connections"},
    {"requests", &Limits::requests, nullptr, "requests in flight"},
    {"received_bytes", &Limits::receivedBytes, nullptr, "bytes of requests in flight"},
    {"queued_bytes", &Limits::queuedBytes, nullptr, "bytes of replies that wait to be taken"},
    {"connection_requests", &Limits::requestsPerConnection, nullptr, "requests in flight of one connection"},
    {"write_ms", nullptr, &Limits::writeTime, "time for a peer to take a reply"},
    {"frame_ms", nullptr, &Limits::frameTime, "time for a peer to complete a frame"},
    {"idle_ms", nullptr, &Limits::idleTime, "time without a request after which a connection is closed"},
};

} // namespace

std::vector<LimitInfo> DescribeLimits(const Limits &limits) {
    std::vector<LimitInfo> all;
    for (const Entry &entry : kEntries) {
        const uint64_t value =
            entry.count != nullptr ? limits.*entry.count : static_cast<uint64_t>((limits.*entry.time).count());
        all.push_back({entry.name, value, entry.meaning});
    }
    return all;
}

void SetLimit(Limits &limits, std::string_view assignment) {
    const size_t equals = assignment.find('=');
    const std::string_view name = assignment.substr(0, equals);
    const std::string_view text = equals == std::string_view::npos ? "" : assignment.substr(equals + 1);
    for (const Entry &entry : kEntries) {
        if (name != entry.name) {
            continue;
        }
        uint32_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > INT32_MAX) {
            throw std::invalid_argument(
                fmt::format("limit {}: \"{}\", expected a number from 1 to {}", name, text, INT32_MAX));
        }
        if (entry.count != nullptr) {
            limits.*entry.count = value;
        } else {
            limits.*entry.time = Limits::Milliseconds(value);
        }
        return;
    }
    std::string names;
    for (const Entry &entry : kEntries) {
        names += fmt::format("{}{}", names.empty() ? "" : ", ", entry.name);
    }
    throw std::invalid_argument(fmt::format("limit \"{}\", expected NAME=VALUE with one of {}", name, names));
}

} // namespace host
