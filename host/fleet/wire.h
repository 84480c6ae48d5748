// How calls, events and what devices say of themselves travel over the fleet's server: subjects and headers.
//
//   tarn.v1.DEVICE.call.SERVICE.METHOD   a request: its payload is the message, as on a local socket
//   tarn.v1.DEVICE.cancel                the caller of the request with this subject for answers gives it up
//   tarn.v1.DEVICE.hello                 what a device says of itself
//   tarn.v1.DEVICE.event                 an event of the daemon's journal, or a gap in it
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/fleet/nats.h"
#include "host/runtime/client.h"

namespace fleet {

constexpr char kEventStream[] = "TARN_EVENTS";
constexpr char kHelloStream[] = "TARN_HELLO";

// Of a device, or of all with "*".
std::string SubjectOf(std::string_view device, std::string_view what);

// Whose a subject is; empty for another's.
std::string DeviceOf(std::string_view subject);

// Throws std::invalid_argument for what can't be a device's name: 1 to 64 letters, digits, '-' and '_'.
void CheckDeviceName(std::string_view name);

// A request. What is empty or 0 does not travel.
struct Request {
    std::string service = {};
    std::string method = {};
    uint32_t pid = 0;          // whose agent
    std::string socketOf = {}; // another service, on whose socket to ask
    uint32_t typeHash = 0;
    std::chrono::milliseconds deadline{0}; // what is left of it
    std::string caller = {};               // who it is, as it says itself
    std::string_view message = {};
};

Message ToMessage(const std::string &device, const Request &request, const std::string &reply);

// Throws std::invalid_argument that says what is wrong with it.
Request RequestOf(const Message &message);

// An answer in as many messages as it takes where none may have a payload larger than `most`.
std::vector<Message> ToMessages(const host::CallOutcome &outcome, const std::string &subject, size_t most);

// Puts the parts of one answer together again, in whatever order they come.
class Answer {
public:
    // The answer, when this was what was missing of it. One that is damaged ends with EBADMSG.
    std::optional<host::CallOutcome> Add(const Message &part);

private:
    host::CallOutcome outcome_;
    std::map<uint32_t, std::string> parts_;
    std::string digest_;
    size_t size_ = 0;
};

} // namespace fleet
