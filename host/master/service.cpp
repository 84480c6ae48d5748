// The master's unit: codecs, wrappers and registration tables of TarnSysdiagMaster, and the methods themselves.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "types/master.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>

#include "host/answer/answer.h"
#include "host/answer/systime.h"
#include "host/master/master.h"
#include "host/master/service.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/master.h"

namespace master {

namespace {

template <class Value>
const Value &Configured(const std::optional<Value> &value, const char *section) {
    if (!value) {
        host::Fail(ENODATA, fmt::format("[{}] is not configured", section));
    }
    return *value;
}

tm SystemsLocalTime(host::WallTime now) {
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    tm fields{};
    localtime_r(&seconds, &fields);
    return fields;
}

host::GmtTime GmtOf(host::WallTime now) {
    return std::chrono::floor<host::Millis>(now);
}

// The name that the system's zone has as a file, else its abbreviation; and its offset without daylight saving.
host::Zone SystemsZone(host::WallTime now) {
    const tm fields = SystemsLocalTime(now);
    std::error_code ignored;
    const std::string link = std::filesystem::read_symlink("/etc/localtime", ignored);
    const std::string zones = "/zoneinfo/";
    const size_t at = link.find(zones);
    const long dst = fields.tm_isdst > 0 ? 3600 : 0;
    return {at == link.npos ? fields.tm_zone : link.substr(at + zones.size()),
            static_cast<int32_t>((fields.tm_gmtoff - dst) / 60)};
}

uint32_t SourceOf(const std::optional<host::Zone> &zone) {
    return zone ? TARN_MASTER_CONFIGURED : TARN_MASTER_OF_SYSTEM;
}

Names NamesOf(const auto &request) {
    return {std::string(host::TextOf(request.acName1)), std::string(host::TextOf(request.acName2))};
}

// A full array has no terminating 0.
template <size_t kSize>
void Fill(char (&array)[kSize], const std::string &text) {
    memset(array, 0, kSize);
    text.copy(array, kSize);
}

void FillNames(auto &reply, const Names &names) {
    Fill(reply.acName1, names.first);
    Fill(reply.acName2, names.second);
}

#define TARN_METHOD TARN_REPLY_RELEASE
#define TARN_METHOD_NO_REPLY TARN_REPLY_RELEASE_NONE
#include "client/master_methods.h"

uint32_t UpdateInnerConfig(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::UpdateInnerConfig, request, replyCtx, [](auto &) {
        if (!Master::Serving().Reload()) {
            host::Fail(EINVAL, "the configuration file");
        }
    });
}

uint32_t GetPhyNameAndID(const Tarn_sys_diag_PhysicalAddrInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetPhyNameAndID, request, replyCtx, [&](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const auto found = config.physical.find({request->uiValue1, request->uiValue2, request->uiValue3});
        if (found == config.physical.end()) {
            host::Fail(ENOENT,
                       fmt::format("[physical {} {} {}]", request->uiValue1, request->uiValue2, request->uiValue3));
        }
        reply.uiValue1 = found->second.type;
        reply.uiValue2 = found->second.number;
        Fill(reply.acPhyName, found->second.name);
    });
}

uint32_t GetTimezone(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetTimezone, request, replyCtx, [](auto &reply) {
        const std::optional<host::Zone> zone = Master::Serving().settings.Configured().zone;
        reply.uiValue1 = SourceOf(zone);
        reply.stTimezone = host::ToRecord(zone ? *zone : SystemsZone(Master::Serving().clocks.WallNow()));
    });
}

uint32_t GetDst(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetDst, request, replyCtx, [](auto &reply) {
        const std::optional<host::DstRule> rule = Master::Serving().settings.Configured().dst;
        reply.uiValue1 = rule ? TARN_MASTER_CONFIGURED : TARN_MASTER_OF_SYSTEM;
        reply.stDst = host::ToRecord(rule);
    });
}

uint32_t GetGmt(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetGmt, request, replyCtx, [](auto &reply) {
        reply.stGmtTime = host::ToRecord(host::WallClock().ToLocal(GmtOf(Master::Serving().clocks.WallNow())));
    });
}

uint32_t GetLocal(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetLocal, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const host::WallTime now = Master::Serving().clocks.WallNow();
        reply.uiValue1 = SourceOf(config.zone);
        if (config.zone) {
            const host::WallClock clock(*config.zone, config.dst);
            reply.stLocalTime = host::ToRecord(clock.ToLocal(GmtOf(now)));
            reply.ucValue = clock.IsDst(GmtOf(now)) ? 1 : 0;
        } else {
            reply.stLocalTime = host::LocalTime(now);
            reply.ucValue = SystemsLocalTime(now).tm_isdst > 0 ? 1 : 0;
        }
    });
}

uint32_t GetCpuOvLoadCfgInfo(const Tarn_sys_diag_OvLoadCpuCtlInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetCpuOvLoadCfgInfo, request, replyCtx, [&](auto &reply) {
        const CpuAnswer answer = Master::Serving().settings.CpuOverload(NamesOf(*request));
        FillNames(reply, answer.names);
        reply.uiValue1 = answer.thresholds.over;
        reply.uiValue2 = answer.thresholds.recover;
        reply.uiValue3 = answer.thresholds.seconds;
        reply.uiValue4 = Master::Serving().settings.ReadCount();
    });
}

uint32_t GetMemoryOvLoadCfgInfo(const Tarn_sys_diag_OvLoadMemCtlInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetMemoryOvLoadCfgInfo, request, replyCtx, [&](auto &reply) {
        const MemoryAnswer answer = Master::Serving().settings.MemoryOverload(NamesOf(*request));
        FillNames(reply, answer.names);
        reply.uiValue1 = answer.thresholds.over;
        reply.uiValue2 = answer.thresholds.recover;
        reply.uiValue3 = answer.change ? TARN_MASTER_CHANGED : TARN_MASTER_AS_IN_FILE;
        if (answer.change) {
            Fill(reply.acName3, answer.change->by);
            reply.uiValue4 = answer.change->count;
            reply.uiValue5 = answer.change->when;
        }
    });
}

uint32_t MemChangeInnerConfig(const Tarn_sys_diag_OvLoadMemCtlOutput *request, void *replyCtx) {
    return host::Answer(host::methods::MemChangeInnerConfig, request, replyCtx, [&](auto &) {
        Master::Serving().settings.ChangeMemory(NamesOf(*request), {request->uiValue1, request->uiValue2, 0},
                                                std::string(host::TextOf(request->acName3)));
    });
}

uint32_t GetMKAutoUpdCfgInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetMKAutoUpdCfgInfo, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const AutoUpdate &update = Configured(config.autoUpdate, "auto-update");
        reply.uiValue1 = update.enabled ? 1 : 0;
        reply.uiValue2 = update.periodHours;
        reply.uiValue3 = update.hour;
    });
}

uint32_t SysdiagGetMKCfgInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::SysdiagGetMKCfgInfo, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const ProcessConfig &process = Configured(config.process, "process");
        Fill(reply.acCfgInfo, process.text);
        reply.uiValue1 = process.instances;
        reply.uiValue2 = process.restarts;
        reply.uiValue3 = process.timeoutSeconds;
    });
}

uint32_t GetLMProcLPid(const Tarn_sys_diag_GetLMProcLPidInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetLMProcLPid, request, replyCtx, [&](auto &reply) {
        const host::procfs::Task process = Master::Serving().procfs.ReadProcess(request->uiPid);
        reply.uiValue1 = process.parent;
        reply.uiLPid = process.session;
    });
}

uint32_t DetectSysdiagServerOnline(const Tarn_sys_diag_None *) {
    host::Log().info("a daemon announces itself; announcements so far: {}", ++Master::Serving().announcementNum);
    return 0;
}

uint32_t SysdiagGetDimCfgInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::SysdiagGetDimCfgInfo, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        static_cast<Tarn_sys_diag_DimTimeCfg &>(reply) = Configured(config.measurement, "measurement").times;
    });
}

uint32_t SysdiagGetDimWorkMode(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::SysdiagGetDimWorkMode, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        reply.uiWorkMode = Configured(config.measurement, "measurement").mode;
    });
}

#define TARN_SERVICE TarnSysdiagMaster
#define TARN_METHODS "client/master_methods.h"
#include "server/tables.inc"

} // namespace

const IdlModuleSpec &kServiceSpec = __module_spec_TarnSysdiagMaster;

void GreetDaemon(host::Client &client) {
    const Tarn_sys_diag_None request{};
    using Codec = velto::Codec<Unit, Tarn_sys_diag_None>;
    std::vector<uint8_t> bytes(Codec::kPack(nullptr, &request));
    auto capacity = static_cast<uint32_t>(bytes.size());
    const VeltoOutBuf out{bytes.data(), &capacity};
    bytes.resize(Codec::kPack(&out, &request));
    const host::CallOutcome outcome = client.Oneway({.service = "TarnSysdiagTarnd",
                                                     .method = "DetectTarndServerOnline",
                                                     .requestHash = velto::kTypeHash<Tarn_sys_diag_None>,
                                                     .request = bytes,
                                                     .deadline = std::chrono::milliseconds(1000)});
    host::Log().info("{}", outcome.Ok() ? "greeted the daemon" : "no daemon: " + outcome.text);
}

} // namespace master
