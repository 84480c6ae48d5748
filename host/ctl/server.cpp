#include "host/ctl/server.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "host/ctl/outcome.h"
#include "host/ctl/print.h"
#include "host/ctl/request.h"
#include "host/ctl/wait.h"
#include "host/describe/named.h"
#include "host/meaning/check.h"
#include "host/osal/attempt.h"

namespace ctl {

using namespace host::describe;

namespace {

size_t SlotOf(const host::meaning::Record &meaning, std::string_view member) {
    const auto &members = meaning.members;
    const auto found = std::ranges::find(members, member, &host::meaning::Member::name);
    if (found == members.end()) {
        std::vector<std::string_view> names;
        std::ranges::transform(members, std::back_inserter(names), &host::meaning::Member::name);
        throw Failure(kUsage, fmt::format("found {}, expected one of: {}", member.empty() ? "nothing" : member,
                                          fmt::join(names, ", ")));
    }
    return static_cast<size_t>(found - members.begin());
}

bool IsAmount(host::meaning::Kind kind) {
    return kind < host::meaning::Kind::kNumber;
}

} // namespace

Json Elements::Named() const {
    Json named = Json::array();
    std::ranges::transform(wire, std::back_inserter(named), [&](const Json &element) { return Named(element); });
    return named;
}

Json Elements::Named(const Json &element) const {
    return ToNamed(element, meaning);
}

const Json &Elements::Value(const Json &element, std::string_view member) const {
    return element.at(type.slots[SlotOf(meaning, member)].name);
}

uint64_t Elements::Number(const Json &element, std::string_view member) const {
    return Value(element, member).get<uint64_t>();
}

std::string Elements::Text(const Json &element, std::string_view member) const {
    return MemberText(type, meaning, SlotOf(meaning, member), Value(element, member));
}

Elements Elements::Inside(std::string_view member) const {
    const size_t slot = SlotOf(meaning, member);
    Json inside = Json::array();
    for (const Json &element : wire) {
        inside.push_back(element.at(type.slots[slot].name));
    }
    return {*type.slots[slot].table, *meaning.inside[slot], std::move(inside)};
}

void Elements::SortBy(std::string_view member) {
    const size_t slot = SlotOf(meaning, member);
    const char *const name = type.slots[slot].name;
    const bool falls = IsAmount(meaning.members[slot].value.kind);
    std::stable_sort(wire.begin(), wire.end(), [&](const Json &left, const Json &right) {
        return falls ? right.at(name) < left.at(name) : left.at(name) < right.at(name);
    });
}

void Elements::Keep(size_t most) {
    if (wire.size() > most) {
        wire.erase(wire.begin() + static_cast<Json::difference_type>(most), wire.end());
    }
}

Json Reply::Named() const {
    return ToNamed(wire, *method.meaning->response);
}

const Json &Reply::operator[](std::string_view member) const {
    return wire.at(method.response->slots[SlotOf(*method.meaning->response, member)].name);
}

std::string Reply::Text(std::string_view member) const {
    return MemberText(*method.response, *method.meaning->response, SlotOf(*method.meaning->response, member),
                      (*this)[member]);
}

Elements Reply::In(std::string_view member) const {
    const size_t slot = SlotOf(*method.meaning->response, member);
    return {*method.response->slots[slot].table, *method.meaning->response->inside[slot], (*this)[member]};
}

Record RecordOf(const Method &method, const Json &request) {
    try {
        Record record = FromJson(*method.request, FromNamed(request, *method.meaning->request));
        host::meaning::Check(*method.meaning->request, record.Data());
        return record;
    } catch (const JsonError &error) {
        throw Failure(kUsage, error.what());
    } catch (const std::system_error &error) {
        throw Failure(kUsage, host::ReasonOf(error));
    }
}

Reply ReplyTo(const Method &method, const host::CallOutcome &outcome, bool anyResult) {
    if (!outcome.Ok()) {
        throw FailureOf(method.service, method.name, outcome);
    }
    if (method.response == nullptr) {
        return {method, Json::object(), outcome.explanation};
    }
    const Record reply = DecodeReply(method, outcome.bytes);
    if (!anyResult) {
        RequireResult(method, reply, outcome.explanation);
    }
    return {method, ToJson(reply), outcome.explanation};
}

Reply Server::Ask(const std::string &name, const Json &request) {
    const Method &method = RequireMethod(name);
    return Send(method, RecordOf(method, request));
}

Reply Server::AskAnyway(const std::string &name, const Json &request) {
    const Method &method = RequireMethod(name);
    return Send(method, RecordOf(method, request), true);
}

Reply Server::Ask(const std::string &name, const std::vector<std::string> &words) {
    const Method &method = RequireMethod(name);
    UseZoneFor(method);
    return Send(method, ReadRequest(method, words));
}

void Server::UseZone() {
    if (!hasZone_) {
        ctl::UseZone([this](const host::CallRequest &call) { return Call(call, false); }, "TarnSysdiagTarnd");
        hasZone_ = true;
    }
}

void Server::UseZoneFor(const Method &method) {
    if (HasLocalTimes(method)) {
        UseZone();
    }
}

host::CallOutcome Server::Call(const host::CallRequest &call, bool isLong) {
    return isLong || whole_ != nullptr ? Wait(call) : client_.Call(call);
}

host::CallOutcome Server::Wait(const host::CallRequest &call) {
    if (whole_ != nullptr) {
        return CallAndShow(client_, call, *whole_);
    }
    Progress progress(globals_, fmt::format("waiting for {}", call.method));
    return CallAndShow(client_, call, progress);
}

Reply Server::Send(const Method &method, const Record &request, bool anyResult) {
    UseZoneFor(method);
    const std::vector<uint8_t> message = Encode(request);
    const bool isLong = method.meaning->duration == host::meaning::Duration::kLong;
    const host::CallRequest call{method.service,       0,       method.name,
                                 method.request->hash, message, isLong ? kPatience : host::Limits().deadline};
    return ReplyTo(method, Call(call, isLong), anyResult);
}

std::optional<Reply> Server::AskUnless(std::initializer_list<uint32_t> none, const std::string &method,
                                       const Json &request) {
    try {
        return Ask(method, request);
    } catch (const Failure &failure) {
        if (std::ranges::find(none, failure.Result()) == none.end() || failure.Result() == 0) {
            throw;
        }
        return std::nullopt;
    }
}

} // namespace ctl
