// replay: sends the requests of a capture again, in their order, one after the other.
#include <fmt/format.h>

#include <cstring>
#include <iostream>
#include <map>

#include "host/ctl/capture/capture.h"
#include "host/ctl/capture/headers.h"
#include "host/ctl/capture/pcapng.h"
#include "host/ctl/commands.h"
#include "host/ctl/table.h"
#include "host/describe/record.h"
#include "host/describe/types.h"
#include "host/meaning/meaning.h"
#include "host/runtime/client.h"
#include "host/runtime/status.h"

namespace ctl {

using host::FrameKind;
using host::describe::Method;

namespace {

// A captured request, and what it was answered with.
struct CapturedCall {
    host::FrameHeader header;
    const host::TappedFrame *request;
    const host::TappedFrame *answer = nullptr;
};

std::vector<CapturedCall> CallsIn(const std::vector<host::TappedFrame> &frames) {
    std::vector<CapturedCall> calls;
    std::map<CallKey, size_t> open;
    for (const host::TappedFrame &frame : frames) {
        const auto header = HeaderOf(frame);
        if (!header) {
            continue;
        }
        const CallKey key = KeyOf(frame, *header);
        if (IsRequest(*header)) {
            open[key] = calls.size();
            calls.push_back({*header, &frame});
        } else if (const auto call = open.find(key); call != open.end() && frame.direction == host::Direction::kSent) {
            calls[call->second].answer = &frame;
            open.erase(call);
        }
    }
    return calls;
}

std::span<const uint8_t> PayloadOf(const host::TappedFrame &frame) {
    return frame.bytes.subspan(host::kHeaderSize);
}

// The type of an answer: of its record, or the failure.
std::string TypeOfReply(const Method &method, std::span<const uint8_t> message) {
    if (method.response == nullptr) {
        return message.empty() ? "no members" : "no valid reply";
    }
    return host::describe::Decode(*method.response, message) ? method.response->name : "no valid reply";
}

std::string TypeOfFailure(uint32_t status, uint32_t errCode) {
    const uint32_t number = status != 0 ? status : errCode;
    const char *const name = strerrorname_np(static_cast<int>(number));
    return name != nullptr ? name : fmt::format("status {}", number);
}

std::string TypeThen(const Method &method, const CapturedCall &call) {
    if (call.answer == nullptr) {
        return "no answer";
    }
    if (call.answer->bytes.size() < call.answer->length) {
        return "cut";
    }
    const host::FrameHeader header = *HeaderOf(*call.answer);
    const auto payload = PayloadOf(*call.answer);
    if (header.kind == FrameKind::kError) {
        return TypeOfFailure(header.status, header.errCode);
    }
    return TypeOfReply(method,
                       payload.first(payload.size() - std::min<size_t>(header.explanationSize, payload.size())));
}

std::string TypeNow(const Method &method, const host::CallOutcome &outcome) {
    return outcome.Ok() ? TypeOfReply(method, outcome.bytes) : TypeOfFailure(outcome.status, outcome.errCode);
}

// Why a request is not sent; empty if it is.
std::string WhyNot(const Method *method, const CapturedCall &call, bool all) {
    if (method == nullptr) {
        return "not known";
    }
    if (std::string_view(method->service) == "TarnSysdiagAgent") {
        return "an agent's";
    }
    if (call.request->bytes.size() < call.request->length) {
        return "cut";
    }
    const host::Group group = method->meaning->group;
    const bool changes = group != host::Group::kReading && group != host::Group::kMemory;
    return changes && !all ? "changes something (--all)" : "";
}

class Replayer {
public:
    explicit Replayer(const ReplayOptions &options) : client_({.runDir = options.runDir}), all_(options.all) {}

    void Replay(const CapturedCall &call) {
        const std::string name = fmt::format("{}.{}", call.header.service, call.header.method);
        const Method *const method = host::describe::FindMethod(name);
        const std::string captured = method == nullptr ? "" : TypeThen(*method, call);
        if (const std::string why = WhyNot(method, call, all_); !why.empty()) {
            table_.Add({call.header.method, captured, "not sent: " + why});
            return;
        }
        ++sent_;
        const auto message = PayloadOf(*call.request);
        const std::string now =
            TypeNow(*method, client_.Call(method->service, 0, method->name, call.header.typeHash, message));
        const bool comparable = captured != "no answer" && captured != "cut";
        differ_ += comparable && now != captured ? 1 : 0;
        table_.Add({call.header.method, captured, now});
    }

    void End() const {
        table_.Print(std::cout, StyleOfOutput());
        if (differ_ != 0) {
            throw Failure(kRemote, fmt::format("{} of {} answers are of another type than captured", differ_, sent_));
        }
    }

private:
    host::Client client_;
    const bool all_;
    Table table_{{"METHOD", "CAPTURED", "NOW"}};
    size_t sent_ = 0, differ_ = 0;
};

} // namespace

void Replay(const ReplayOptions &options) {
    const std::string content = ReadAll(options.file);
    const auto frames = ReadPcapng({reinterpret_cast<const uint8_t *>(content.data()), content.size()});
    Replayer replayer(options);
    for (const CapturedCall &call : CallsIn(frames)) {
        if (call.header.service != host::kRuntimeService) {
            replayer.Replay(call);
        }
    }
    replayer.End();
}

} // namespace ctl
