// The master's unit: codecs, wrappers and registration tables of TarnSysdiagMaster, and the methods themselves.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/master.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>

#include "host/answer/answer.h"
#include "host/master/master.h"
#include "host/master/service.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"

namespace master {

namespace {

namespace settings_source = host::meaning::settings_source;
namespace thresholds_state = host::meaning::thresholds_state;

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
    return zone ? settings_source::kConfigured : settings_source::kSystem;
}

template <size_t kSize>
Names NamesOf(const char (&name)[kSize], const char (&variant)[kSize]) {
    return {std::string(host::TextOf(name)), std::string(host::TextOf(variant))};
}

#define TARN_METHOD TARN_REPLY_RELEASE
#define TARN_METHOD_NO_REPLY TARN_REPLY_RELEASE_NONE
#include "tarn_sysdiag/client/master_methods.h"

uint32_t UpdateInnerConfig(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::UpdateInnerConfig, request, replyCtx, [](auto &) {
        if (!Master::Serving().Reload()) {
            host::Fail(EINVAL, "the configuration file");
        }
    });
}

uint32_t GetPhyNameAndID(const Tarn_sys_diag_PhysicalAddrInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetPhyNameAndID, request, replyCtx, [&](auto &reply) {
        const auto &[frame, slot, port] = *request;
        const Config config = Master::Serving().settings.Configured();
        const auto found = config.physical.find({frame, slot, port});
        if (found == config.physical.end()) {
            host::Fail(ENOENT, fmt::format("[physical {} {} {}]", frame, slot, port));
        }
        auto &[type, number, name] = reply.Members();
        type = found->second.type;
        number = found->second.number;
        host::FillText(name, found->second.name);
    });
}

uint32_t GetTimezone(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetTimezone, request, replyCtx, [](auto &reply) {
        auto &[source, timezone] = reply.Members();
        const std::optional<host::Zone> zone = Master::Serving().settings.Configured().zone;
        source = SourceOf(zone);
        timezone = host::ToRecord(zone ? *zone : SystemsZone(Master::Serving().clocks.WallNow()));
    });
}

uint32_t GetDst(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetDst, request, replyCtx, [](auto &reply) {
        auto &[configured, rule] = reply.Members();
        const std::optional<host::DstRule> dst = Master::Serving().settings.Configured().dst;
        configured = dst.has_value();
        rule = host::ToRecord(dst);
    });
}

uint32_t GetGmt(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetGmt, request, replyCtx, [](auto &reply) {
        reply.stGmtTime = host::ToRecord(host::WallClock().ToLocal(GmtOf(Master::Serving().clocks.WallNow())));
    });
}

uint32_t GetLocal(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetLocal, request, replyCtx, [](auto &reply) {
        auto &[source, time, dst] = reply.Members();
        const Config config = Master::Serving().settings.Configured();
        const host::WallTime now = Master::Serving().clocks.WallNow();
        source = SourceOf(config.zone);
        if (config.zone) {
            const host::WallClock clock(*config.zone, config.dst);
            time = host::ToRecord(clock.ToLocal(GmtOf(now)));
            dst = clock.IsDst(GmtOf(now)) ? 1 : 0;
        } else {
            time = host::ToRecord(host::SystemsTime(now).local);
            dst = SystemsLocalTime(now).tm_isdst > 0 ? 1 : 0;
        }
    });
}

uint32_t GetCpuOvLoadCfgInfo(const Tarn_sys_diag_OvLoadCpuCtlInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetCpuOvLoadCfgInfo, request, replyCtx, [&](auto &reply) {
        const CpuAnswer answer = Master::Serving().settings.CpuOverload(NamesOf(request->acName1, request->acName2));
        auto &[name, variant, beginsAt, endsBelow, mustLast, timesRead] = reply.Members();
        host::FillText(name, answer.names.first);
        host::FillText(variant, answer.names.second);
        beginsAt = answer.thresholds.over;
        endsBelow = answer.thresholds.recover;
        mustLast = answer.thresholds.seconds;
        timesRead = Master::Serving().settings.ReadCount();
    });
}

uint32_t GetMemoryOvLoadCfgInfo(const Tarn_sys_diag_OvLoadMemCtlInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetMemoryOvLoadCfgInfo, request, replyCtx, [&](auto &reply) {
        const MemoryAnswer answer =
            Master::Serving().settings.MemoryOverload(NamesOf(request->acName1, request->acName2));
        auto &[name, variant, beginsAt, endsBelow, state, changedBy, changes, changedAt] = reply.Members();
        host::FillText(name, answer.names.first);
        host::FillText(variant, answer.names.second);
        beginsAt = answer.thresholds.over;
        endsBelow = answer.thresholds.recover;
        state = answer.change ? thresholds_state::kChanged : thresholds_state::kAsInFile;
        if (answer.change) {
            host::FillText(changedBy, answer.change->by);
            changes = answer.change->count;
            changedAt = answer.change->when;
        }
    });
}

uint32_t MemChangeInnerConfig(const Tarn_sys_diag_OvLoadMemCtlOutput *request, void *replyCtx) {
    return host::Answer(host::methods::MemChangeInnerConfig, request, replyCtx, [&](auto &) {
        const auto &[name, variant, beginsAt, endsBelow, state, changedBy, changes, changedAt] = *request;
        Master::Serving().settings.ChangeMemory(NamesOf(name, variant), {beginsAt, endsBelow, 0},
                                                std::string(host::TextOf(changedBy)));
    });
}

uint32_t GetMKAutoUpdCfgInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetMKAutoUpdCfgInfo, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const AutoUpdate &update = Configured(config.autoUpdate, "auto-update");
        auto &[on, period, hour] = reply.Members();
        on = update.enabled ? 1 : 0;
        period = update.periodHours;
        hour = update.hour;
    });
}

uint32_t SysdiagGetMKCfgInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::SysdiagGetMKCfgInfo, request, replyCtx, [](auto &reply) {
        const Config config = Master::Serving().settings.Configured();
        const ProcessConfig &process = Configured(config.process, "process");
        auto &[text, instances, restarts, timeout] = reply.Members();
        host::FillText(text, process.text);
        instances = process.instances;
        restarts = process.restarts;
        timeout = process.timeoutSeconds;
    });
}

uint32_t GetLMProcLPid(const Tarn_sys_diag_GetLMProcLPidInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetLMProcLPid, request, replyCtx, [&](auto &reply) {
        const host::procfs::Procfs &procfs = Master::Serving().procfs;
        procfs.ReadProcess(request->uiPid); // a thread is none
        const std::vector<uint32_t> numbers = procfs.NumbersOf(request->uiPid);
        auto &[namespaces, local] = reply.Members();
        namespaces = static_cast<uint32_t>(numbers.size() - 1);
        local = numbers.back();
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
#define TARN_METHODS "tarn_sysdiag/client/master_methods.h"
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
