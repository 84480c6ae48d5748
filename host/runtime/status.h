// What a running server says of itself: a service that every server has, on each of its sockets.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/runtime/client.h"

namespace host {

// Its methods take an empty request and answer with JSON: Health with an object of the members of ServerHealth, Status
// with one of the members of ServerStatus, in snake case, where durations end in _ms or _ns; Describe with what
// host/meaning/reflect.h says. Capture answers with the frames of tapped_frame.h.
constexpr std::string_view kRuntimeService = "TarnHostRuntime";

struct ServerHealth {
    std::string state; // "serving" or "stopping"
    uint32_t pid = 0;
    std::chrono::milliseconds uptime{0};
    uint32_t workers = 0; // threads that run methods
    uint32_t busy = 0;    // of them, those that do
    uint64_t connections = 0;
    uint64_t requests = 0; // that have arrived and not ended
    std::string version;   // of the runtime that serves; empty: it is too old to tell
    std::string timezone;  // of the local times in replies, as POSIX has it for TZ; empty: the system's
};

// How many calls took less than a time. The time of the last is above all: it counts them all.
struct CallsBelow {
    std::chrono::nanoseconds time{0};
    uint64_t calls = 0;
};

struct MethodStatus {
    uint32_t index = 0; // in the service's interface table
    std::string name;
    std::string request; // type name; empty for a method that the runtime does not know by name
    std::string response;
    uint32_t requestHash = 0;
    uint32_t responseHash = 0; // 0 without reply
    uint64_t calls = 0;
    uint64_t errors = 0;
    uint64_t cancelled = 0;
    std::chrono::nanoseconds p50{0};
    std::chrono::nanoseconds p99{0};
    std::chrono::nanoseconds max{0};
    std::chrono::nanoseconds sum{0};
    std::vector<CallsBelow> below; // by time; empty: none has called it, or the server is too old to tell
};

struct ServiceStatus {
    std::string name;
    std::vector<MethodStatus> methods;
};

// A limit or a counter.
struct NamedValue {
    std::string name;
    uint64_t value = 0;
    std::string meaning;
};

struct ServerStatus {
    ServerHealth health;
    std::vector<std::string> mistakes; // in files that were read again: what was in force before holds
    std::vector<NamedValue> limits;
    std::vector<NamedValue> refused; // how often, by reason
    std::vector<ServiceStatus> services;
};

// Ask the server that serves `service`, or the agent of a process.
CallOutcome AskHealth(Client &client, std::string_view service, uint32_t pid, ServerHealth &health,
                      std::chrono::milliseconds deadline = {});
CallOutcome AskStatus(Client &client, std::string_view service, uint32_t pid, ServerStatus &status,
                      std::chrono::milliseconds deadline = {});

// The same by a function that calls, which waits in its own way.
using Caller = std::function<CallOutcome(const CallRequest &)>;
CallOutcome AskHealth(const Caller &call, std::string_view service, uint32_t pid, ServerHealth &health);

// What a server has received and sent since it was asked on the same connection before, as tapped_frame.h reads it.
CallOutcome AskCapture(Client &client, std::string_view service, uint32_t pid, std::chrono::milliseconds deadline = {});

CallOutcome AskDescription(Client &client, std::string_view service, uint32_t pid, std::string &description,
                           std::chrono::milliseconds deadline = {});

std::string ToJson(const ServerHealth &health);
std::string ToJson(const ServerStatus &status);

} // namespace host
