// The memory of processes: how much and of what kind, and mapping by mapping.
#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/process_memory.h"
#include "host/daemon/processes/process_age.h"
#include "host/procfs/memory.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

using host::procfs::FieldOf;

const host::procfs::Procfs &Proc() {
    return Daemon::Serving().proc;
}

std::string ProgramName(const ProcessStatus &process) {
    if (!process.HasMemory()) {
        return {};
    }
    if (!host::MayLookInto(process.Task().id)) {
        return std::string(host::meaning::process_memory::kHiddenProgram);
    }
    try {
        return host::procfs::ProgramName(Proc(), process.Task().id);
    } catch (const std::system_error &error) {
        if (error.code().value() == EACCES) {
            return std::string(host::meaning::process_memory::kHiddenProgram);
        }
        throw;
    }
}

// The members that both records have.
template <class Record>
void Describe(const ProcessStatus &process, UserNames &names, Record &record) {
    record.uiPid = process.Task().id;
    record.uiPpid = static_cast<uint32_t>(process.Number("PPid"));
    host::CopyText(record.szProcName, process.Task().name);
    host::CopyText(record.szExeName, ProgramName(process));
    host::CopyText(record.szUserName, names.User(process.EffectiveId("Uid")));
    record.uiThreadNum = process.Task().threadNum;
    record.uiVmPeak = process.SizeOf("VmPeak");
    record.uiVmSize = process.SizeOf("VmSize");
    record.uiVmLck = process.SizeOf("VmLck");
    record.uiVmHwm = process.SizeOf("VmHWM");
    record.uiVmRss = process.SizeOf("VmRSS");
    record.uiRssAnon = process.SizeOf("RssAnon");
    record.uiRssFile = process.SizeOf("RssFile");
    record.uiRssShmem = process.SizeOf("RssShmem");
    record.uiVmData = process.SizeOf("VmData");
    record.uiVmStk = process.SizeOf("VmStk");
    record.uiVmExe = process.SizeOf("VmExe");
    record.uiVmLib = process.SizeOf("VmLib");
    record.uiVmPte = process.SizeOf("VmPTE");
    record.uiVmSwap = process.SizeOf("VmSwap");
    record.uiHugetlb = process.SizeOf("HugetlbPages");
}

std::vector<Tarn_sys_diag_SysMemStatisPro> Statistics(const Tarn_sys_diag_PositionStr &request) {
    const Daemon &daemon = Daemon::Serving();
    UserNames names;
    std::vector<Tarn_sys_diag_SysMemStatisPro> records;
    const auto &[process, user] = request;
    if (const std::string name(host::TextOf(user)); !name.empty() && !NumberIn(name) && !UserNames::Knows(name)) {
        throw host::meaning::BadMember(host::methods::GetSysMemStatisPro, "user", name,
                                       "the name of a user of the system, or a number");
    }
    SelectProcesses(daemon.proc, std::string(host::TextOf(process)), std::string(host::TextOf(user)), names,
                    [&](const ProcessStatus &one) {
                        Tarn_sys_diag_SysMemStatisPro record{};
                        Describe(one, names, record);
                        record.stStartTime =
                            daemon.clock.LocalTime(StartOf(AgeOf(daemon.proc, one.Task().startTicks), daemon.clocks));
                        records.push_back(record);
                    });
    std::ranges::stable_sort(records, std::ranges::greater(), &Tarn_sys_diag_SysMemStatisPro::uiVmRss);
    return records;
}

// False where they may not be read, though the rest may.
bool TakeShares(uint32_t pid, Tarn_sys_diag_SysOsMemInfo &record) {
    std::string rollup;
    try {
        rollup = Proc().Read(pid, "smaps_rollup");
    } catch (const std::system_error &error) {
        if (error.code() == std::errc::permission_denied || error.code() == std::errc::operation_not_permitted) {
            return false;
        }
        throw;
    }
    record.uiPss = Kib(FieldOf(rollup, "Pss"));
    record.uiSharedClean = Kib(FieldOf(rollup, "Shared_Clean"));
    record.uiSharedDirty = Kib(FieldOf(rollup, "Shared_Dirty"));
    record.uiPrivateClean = Kib(FieldOf(rollup, "Private_Clean"));
    record.uiPrivateDirty = Kib(FieldOf(rollup, "Private_Dirty"));
    record.uiSwapPss = Kib(FieldOf(rollup, "SwapPss"));
    return true;
}

// Notes where what it shares is hidden.
Tarn_sys_diag_SysOsMemInfo Detail(uint32_t pid, UserNames &names, std::vector<uint32_t> &hidden) {
    const ProcessStatus process(Proc(), pid);
    const auto text = [&](const char *file) { return Proc().Read(pid, file); };
    Tarn_sys_diag_SysOsMemInfo record{};
    if (process.HasMemory() && !TakeShares(pid, record)) {
        hidden.push_back(pid);
    }
    Describe(process, names, record);
    host::CopyText(record.szGroupName, names.Group(process.EffectiveId("Gid")));
    host::CopyText(record.szState, host::procfs::StateText(process.Task().state));
    host::CopyText(record.szWaitChannel, text("wchan"));
    record.ullMinorFaults = process.Task().minorFaults;
    record.ullMajorFaults = process.Task().majorFaults;
    record.uiOomScore = NumberIn(text("oom_score")).value_or(0);
    return record;
}

std::vector<Tarn_sys_diag_SysOsMemInfo> Details(uint32_t pid, std::vector<uint32_t> &hidden) {
    UserNames names;
    if (pid != 0) {
        return {Detail(pid, names, hidden)};
    }
    std::vector<Tarn_sys_diag_SysOsMemInfo> records;
    for (const uint32_t id : Proc().ProcessIds()) {
        host::procfs::SkipHidden([&] { records.push_back(Detail(id, names, hidden)); });
    }
    return records;
}

std::string_view WithoutDirectories(std::string_view name) {
    return name.starts_with('/') ? name.substr(name.rfind('/') + 1) : name;
}

// Two addresses of 16 digits have no room.
std::string RangeText(const host::procfs::Mapping &mapping) {
    return mapping.range.size() < sizeof(Tarn_sys_diag_SysProOs::szAddrRange)
               ? mapping.range
               : fmt::format("{:x}+{:x}", mapping.start, mapping.end - mapping.start);
}

std::vector<Tarn_sys_diag_SysProOs> Mappings(uint32_t pid) {
    using host::meaning::mappings::kMost;
    std::vector<Tarn_sys_diag_SysProOs> records;
    host::procfs::ReadMappings(Proc(), pid, [&](const host::procfs::Mapping &mapping) {
        if (records.size() == kMost) {
            host::Fail(EMSGSIZE, fmt::format("process {} has more than {} mappings", pid, kMost));
        }
        Tarn_sys_diag_SysProOs record{};
        record.uiPid = pid;
        host::CopyText(record.szAddrRange, RangeText(mapping));
        host::CopyText(record.szPerms, mapping.perms);
        record.uiSize = Kib(mapping.size);
        record.uiRss = Kib(mapping.resident);
        record.uiPss = Kib(mapping.proportional);
        record.uiPrivateDirty = Kib(mapping.privateDirty);
        record.uiSwap = Kib(mapping.swap);
        host::CopyText(record.szDevInode, fmt::format("{} {}", mapping.device, mapping.inode));
        host::CopyText(record.szMapName, WithoutDirectories(mapping.name));
        records.push_back(record);
    });
    return records;
}

} // namespace

} // namespace tarnd

uint32_t GetSysMemStatisPro(const Tarn_sys_diag_PositionStr *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemStatisPro, request, replyCtx, [&](auto &reply) {
        reply.pstRecord = reply.Keep(tarnd::Statistics(*request), reply.uiRecordNum);
        reply.uiMemTotal = tarnd::Kib(host::procfs::FieldOf(tarnd::Daemon::Serving().proc.Read("meminfo"), "MemTotal"));
    });
}

uint32_t GetOsProcessMemInfo(const Tarn_sys_diag_SysOsMemInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetOsProcessMemInfo, request, replyCtx, [&](auto &reply) {
        std::vector<uint32_t> hidden;
        reply.pstProc = reply.Keep(tarnd::Details(request->uiPid, hidden), reply.uiProcNum);
        if (!hidden.empty()) {
            const std::string missing =
                fmt::format("what processes share and have for themselves may not be read of {} of them, process {} "
                            "first: 0 stands for it",
                            hidden.size(), hidden.front());
            TarnHost_ExplainReply(replyCtx, missing.c_str());
        }
    });
}

uint32_t GetOsProcessMapsInfo(const Tarn_sys_diag_SysProOsInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetOsProcessMapsInfo, request, replyCtx, [&](auto &reply) {
        reply.pstMap = reply.Keep(tarnd::Mappings(request->uiPid), reply.uiMapNum);
    });
}
