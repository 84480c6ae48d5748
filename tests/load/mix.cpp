#include "tests/load/mix.h"

#include <fmt/format.h>

#include <cerrno>
#include <map>

#include "host/describe/json.h"

namespace kit {

using namespace host::describe;

namespace {

// What is wanted of each method beyond a record of zeros with the processes in it; and with which status the method may
// answer all the same, since the answer depends on what others have called.
struct Wanted {
    Json request = Json::object();
    std::set<uint32_t> statuses = {};
};

constexpr char kNow[] =
    R"("stTime": {"usYear": 2026, "ucMonth": 2, "ucDay": 3, "ucHour": 4, "ucMinute": 5, "ucSecond": 6,
                                      "ucWeek": 2})";

const std::map<std::string, Wanted> &AllWanted() {
    static const std::map<std::string, Wanted> wanted{
        {"AgentRegInfo", {{{"szAgentName", "mix"}, {"ucValue3", 1}}}},
        {"DumpOsProcMemValue", {{{"ullLength", 64}}}},
        {"CopyZipLogFile",
         {{{"szSrcPath", "mix.zip"}, {"szCopyTarget", "copies"}, {"szCopyParam1", "replace"}}, {ENOENT}}},
        {"ZipLogFile", {{{"szZipName", "mix.zip"}, {"szLogPath", "mix.log"}}}},
        {"SetTimezone", {{{"stTimezone", {{"szTimezoneName", "CET-1CEST"}, {"uiTimezoneOffset", 60}}}}}},
        {"SetGmt", {Json::parse(fmt::format("{{{}}}", kNow))}},
        {"SetLocalTime", {Json::parse(fmt::format("{{{}}}", kNow))}},
        {"DBGCmdExecShowByTarnd", {{{"pcCmdStr", "counter"}}}},
        {"DBGCmdExecShow", {{{"pcCmdStr", "counter"}}}},
        {"DBGCmdExecResultGetByTarnd", {Json::object(), {ENOENT, EBUSY, EINVAL, ENODATA, EINPROGRESS}}},
        {"DBGCmdExecResultGet", {Json::object(), {ENOENT, EBUSY, EINVAL, ENODATA, EINPROGRESS}}},
        {"UpdateMsgCtrlRuleTarnd", {{{"uiValue1", 1}, {"uiValue3", 1}}}},
        {"UpdateMsgCtrlRule", {{{"uiValue1", 1}, {"uiValue3", 1}}}},
        {"TarnUpdateResourceInfo", {{{"ucResource", 1}}}},
        {"MemDiag_ma", {{{"uiMemCmd", 1}}}},
        {"MemDiagMaByTarnd", {{{"uiMemCmd", 1}}}},
        {"SetCpuOvProcThreshold", {{{"ucValue2", 1}, {"uiValue3", 500}}}},
        {"GetCpuOvMonProcInfo", {Json::object(), {ENOENT, ESRCH, ENODATA}}},
        {"DisCpuOvloadInfo", {Json::object(), {ENODATA}}},
        {"DisCpuOvloadCallstackInfo", {Json::object(), {ENODATA}}},
        {"GetMirelMemPtInfo", {{{"uiPtId", 1}}, {ENOENT}}},
        {"GetMirelMemPtInfoByTarnd", {{{"uiPtId", 1}}, {ENOENT}}},
        {"MemHandleCallStack", {{{"uiHandleId", 1}}, {ENOENT}}},
        {"GetPhyNameAndID", {{{"uiValue2", 1}, {"uiValue3", 2}}}},
        {"MemChangeInnerConfig", {{{"acName1", "system"}, {"acName3", "mix"}, {"uiValue1", 910}, {"uiValue2", 900}}}},
        {"ClearEnvAct", {{{"acValue1", "overload"}}}},
        {"SetOvLoadDebugSwitch", {{{"uiValue1", 3}}}},
        {"GetProcTable", {Json::object(), {ENODATA}}},
        {"TarnSetDimOpration", {{{"uiOperation", 5}}}},
    };
    return wanted;
}

const Wanted &WantedOf(const Method &method) {
    static const Wanted nothing;
    const auto found = AllWanted().find(method.name);
    return found == AllWanted().end() ? nothing : found->second;
}

// Members that hold a process though their names don't say so.
bool HoldsProcess(const Method &method, std::string_view member) {
    static const std::set<std::pair<std::string_view, std::string_view>> members{
        {"AgentRegInfo", "uiValue1"}, {"TarnAppSubscribe", "uiValue1"},      {"TarnGetDlpCfgFromAgent", "uiValue3"},
        {"AppMemInfo", "uiValue1"},   {"SetCpuOvProcThreshold", "uiValue1"},
    };
    return member == "uiPid" || member == "uiTargetPid" || members.contains({method.name, member});
}

// Work on the whole machine that one in many calls is enough of.
bool IsHeavy(const Method &method) {
    static const std::set<std::string_view> heavy{"TarnSetDimOpration"};
    return heavy.contains(method.name);
}

bool IsAgentMethod(const Method &method) {
    return std::string_view(method.service) == "TarnSysdiagAgent";
}

// Statuses that say what is wrong with a request, or with the time at which it came.
const std::set<uint32_t> kRefusals{EPERM,  ENOENT,  ESRCH,  EAGAIN,        EACCES,   EFAULT,   EBUSY,
                                   EEXIST, ENOTDIR, EISDIR, EINVAL,        ENODATA,  ERANGE,   ENAMETOOLONG,
                                   ELOOP,  ENODEV,  ENXIO,  EOPNOTSUPP,    EMSGSIZE, EALREADY, EINPROGRESS,
                                   ENOSPC, EPROTO,  ENOMSG, EADDRNOTAVAIL, ECANCELED};

} // namespace

uint64_t Mix::Pick(std::initializer_list<uint64_t> values) {
    return values.begin()[random_() % values.size()];
}

// A relayed method is about the process of the agent; an agent that others registered would not answer.
uint32_t Mix::ProcessFor(const Method &method) const {
    const std::string_view name = method.name;
    const bool agent = IsAgentMethod(method) || name.ends_with("ByTarnd") || name.ends_with("Tarnd") ||
                       name == "TarnGetDlpCfgFromAgent" || name == "AppMemInfo";
    return agent ? scene_.agent : scene_.subject;
}

Json Mix::AnyValue(const Method &method, const Slot &slot) {
    static const std::vector<std::string> texts{"",  "*",       "mix",        "mix.log", "../mix",
                                                "/", "counter", "\xC3\xA4 b", "CET"};
    const auto text = [&](size_t most) { return texts[static_cast<size_t>(random_() % texts.size())].substr(0, most); };
    switch (slot.kind) {
    case Kind::kScalar:
        if (HoldsProcess(method, slot.name)) {
            return Pick({ProcessFor(method), scene_.subject, 4'000'000'000});
        }
        if (std::string_view(slot.name) == "uiTid") {
            return Pick({scene_.thread, scene_.subject, 4'000'000'000});
        }
        return std::min(Pick({0, 0, 1, 1, 2, 3, 5, 60, 1000, scene_.address, UINT64_MAX}), MaxScalar(slot.width));
    case Kind::kString:
        return random_() % 4 == 0 ? Json() : Json(text(SIZE_MAX));
    case Kind::kBytes:
        return text(slot.length);
    case Kind::kArray64:
        return std::vector<uint64_t>(slot.length, scene_.address);
    case Kind::kByteVector:
        return text(SIZE_MAX);
    case Kind::kVector32:
        return std::vector<uint64_t>(random_() % 4, scene_.subject);
    case Kind::kTable:
        return AnyRecord(method, *slot.table);
    default: {
        Json elements = Json::array();
        for (size_t count = slot.kind == Kind::kTableRun ? slot.length : random_() % 4; count > 0; --count) {
            elements.push_back(AnyRecord(method, *slot.table));
        }
        return elements;
    }
    }
}

Json Mix::AnyRecord(const Method &method, const Type &type) {
    Json record = Json::object();
    for (const Slot &slot : type.slots) {
        record[slot.name] = AnyValue(method, slot);
    }
    return record;
}

Json Mix::ValidRequest(const Method &method) const {
    Json request = WantedOf(method).request;
    for (const Slot &slot : method.request->slots) {
        if (request.contains(slot.name)) {
            continue;
        }
        if (HoldsProcess(method, slot.name)) {
            request[slot.name] = ProcessFor(method);
        } else if (std::string_view(slot.name) == "uiTid") {
            request[slot.name] = scene_.thread.load();
        } else if (std::string_view(slot.name) == "ullAddress") {
            request[slot.name] = scene_.address.load();
        }
    }
    return request;
}

const char *Mix::Call::Name() const {
    return method->name;
}

host::CallRequest Mix::Call::WithDeadline(std::chrono::milliseconds deadline) const {
    return {method->service, pid, method->name, method->request->hash, request, deadline};
}

Mix::Call Mix::Next() {
    const auto &methods = Methods();
    const auto any = [&] { return &methods[static_cast<size_t>(random_() % methods.size())]; };
    const Method *method = any();
    while (IsHeavy(*method) && random_() % 32 != 0) {
        method = any();
    }
    const bool valid = random_() % 2 == 0;
    const Json json = valid ? ValidRequest(*method) : AnyRecord(*method, *method->request);
    return {method, IsAgentMethod(*method) ? scene_.agent.load() : 0, valid, json.dump(),
            Encode(FromJson(*method->request, json))};
}

uint32_t StatusOf(const Mix::Call &call, const host::CallOutcome &outcome) {
    if (outcome.errCode != 0) {
        return 1000 + outcome.errCode;
    }
    if (outcome.status != 0 || call.method->response == nullptr || outcome.bytes.empty()) {
        return outcome.status;
    }
    const auto reply = Decode(*call.method->response, outcome.bytes);
    if (!reply) {
        return 2000;
    }
    for (const Slot &slot : call.method->response->slots) {
        if (std::string_view(slot.name) == "uiResult") {
            return LoadMember<uint32_t>(reply->Data(), slot.offset);
        }
    }
    return 0;
}

bool IsExpected(const Mix::Call &call, uint32_t status) {
    return status == 0 || WantedOf(*call.method).statuses.contains(status) ||
           (!call.valid && kRefusals.contains(status));
}

bool IsPeerFailure(uint32_t status) {
    static const std::set<uint32_t> failures{ENOENT,    ECONNRESET,   ETIMEDOUT, ECONNREFUSED,
                                             ECANCELED, ECONNABORTED, EAGAIN,    EPIPE};
    // Of a relayed call, the daemon passes on what became of the agent.
    return (status > 1000 && failures.contains(status - 1000)) || status == ESRCH || failures.contains(status);
}

std::string Tell(const Mix::Call &call, const host::CallOutcome &outcome) {
    return fmt::format("{} {}: {} {} ({})", call.method->name, call.text, call.valid ? "valid, but" : "any, but",
                       StatusOf(call, outcome), outcome.text);
}

std::chrono::seconds ProofTime(std::chrono::seconds otherwise) {
    const char *const given = getenv("TARN_PROOF_SECONDS");
    return given == nullptr ? otherwise : std::chrono::seconds(std::max(1, atoi(given)));
}

} // namespace kit
