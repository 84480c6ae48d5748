// The memory of processes: how much and of what kind, and mapping by mapping.
#include <ctime>
#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <chrono>

#include "host/answer/answer.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/processes/users.h"
#include "host/daemon/time/local_clock.h"
#include "host/procfs/memory.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using host::procfs::FieldOf;

// What is read of a process for either kind of record.
struct Source {
    explicit Source(uint32_t pid)
        : task(host::procfs::Procfs().ReadProcess(pid)), status(host::procfs::Procfs().Read(pid, "status")) {}

    // The second of the ids in a line such as "Uid:": real, effective, saved, of file access.
    uint32_t EffectiveId(const std::string &key) const {
        const uint64_t real = FieldOf(status, key);
        const std::string start = fmt::format("\n{}:\t{}\t", key, real);
        const size_t at = status.find(start);
        uint32_t id = 0;
        if (at == status.npos ||
            std::from_chars(status.data() + at + start.size(), status.data() + status.size(), id).ec != std::errc{}) {
            throw std::system_error(EPROTO, std::generic_category(), "no ids in \"" + key + ":\"");
        }
        return id;
    }

    // A kernel thread and a zombie have no lines about memory.
    uint32_t SizeOf(std::string_view key) const { return Kib(host::procfs::FindField(status, key).value_or(0)); }

    host::procfs::Task task;
    std::string status;
};

std::string ProgramName(const Source &source) {
    if (!host::procfs::HasMemory(source.status)) {
        return {};
    }
    try {
        return host::procfs::ProgramName(host::procfs::Procfs(), source.task.id);
    } catch (const std::system_error &error) {
        if (error.code().value() == EACCES) {
            return TARND_HIDDEN;
        }
        throw;
    }
}

// The members that both records have.
template <class Record>
void Describe(const Source &source, UserNames &names, Record &record) {
    record.uiPid = source.task.id;
    record.uiPpid = static_cast<uint32_t>(FieldOf(source.status, "PPid"));
    host::CopyText(record.szProcName, source.task.name);
    host::CopyText(record.szExeName, ProgramName(source));
    host::CopyText(record.szUserName, names.User(source.EffectiveId("Uid")));
    record.uiThreadNum = source.task.threadNum;
    record.uiVmPeak = source.SizeOf("VmPeak");
    record.uiVmSize = source.SizeOf("VmSize");
    record.uiVmLck = source.SizeOf("VmLck");
    record.uiVmHwm = source.SizeOf("VmHWM");
    record.uiVmRss = source.SizeOf("VmRSS");
    record.uiRssAnon = source.SizeOf("RssAnon");
    record.uiRssFile = source.SizeOf("RssFile");
    record.uiRssShmem = source.SizeOf("RssShmem");
    record.uiVmData = source.SizeOf("VmData");
    record.uiVmStk = source.SizeOf("VmStk");
    record.uiVmExe = source.SizeOf("VmExe");
    record.uiVmLib = source.SizeOf("VmLib");
    record.uiVmPte = source.SizeOf("VmPTE");
    record.uiVmSwap = source.SizeOf("VmSwap");
    record.uiHugetlb = source.SizeOf("HugetlbPages");
}

std::chrono::system_clock::time_point StartOf(const host::procfs::Task &task) {
    timespec sinceBoot;
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto now = std::chrono::seconds(sinceBoot.tv_sec) + std::chrono::nanoseconds(sinceBoot.tv_nsec);
    const std::chrono::milliseconds started(task.startTicks * 1000 / host::procfs::TicksPerSecond());
    return std::chrono::system_clock::now() -
           std::chrono::duration_cast<std::chrono::system_clock::duration>(now - started);
}

// All of a text as a number; it may end with a line feed.
std::optional<uint32_t> NumberIn(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// Which processes GetSysMemStatisPro is about.
class Selection {
public:
    explicit Selection(const Tarn_sys_diag_PositionStr &request)
        : name_(host::TextOf(request.acPosition1)), user_(host::TextOf(request.acPosition2)) {}

    std::vector<Tarn_sys_diag_SysMemStatisPro> Read() {
        if (const std::optional<uint32_t> pid = NumberIn(name_)) {
            name_.clear();
            Add(*pid);
        } else {
            for (const uint32_t id : host::procfs::Procfs().ProcessIds()) {
                host::procfs::SkipHidden([&] { Add(id); });
            }
        }
        std::stable_sort(records_.begin(), records_.end(),
                         [](const auto &a, const auto &b) { return a.uiVmRss > b.uiVmRss; });
        return std::move(records_);
    }

private:
    void Add(uint32_t pid) {
        const Source source(pid);
        if (!name_.empty() && fnmatch(name_.c_str(), source.task.name.c_str(), 0) != 0) {
            return;
        }
        const uint32_t uid = source.EffectiveId("Uid");
        if (!user_.empty() && user_ != names_.User(uid) && user_ != std::to_string(uid)) {
            return;
        }
        Tarn_sys_diag_SysMemStatisPro record{};
        Describe(source, names_, record);
        record.stStartTime = TheClock().LocalTime(StartOf(source.task));
        records_.push_back(record);
    }

    std::string name_; // a pattern
    const std::string user_;
    UserNames names_;
    std::vector<Tarn_sys_diag_SysMemStatisPro> records_;
};

Tarn_sys_diag_SysOsMemInfo Detail(uint32_t pid, UserNames &names) {
    const Source source(pid);
    const auto text = [&](const char *file) { return host::procfs::Procfs().Read(pid, file); };
    Tarn_sys_diag_SysOsMemInfo record{};
    if (host::procfs::HasMemory(source.status)) {
        const std::string rollup = text("smaps_rollup");
        record.uiPss = Kib(FieldOf(rollup, "Pss"));
        record.uiSharedClean = Kib(FieldOf(rollup, "Shared_Clean"));
        record.uiSharedDirty = Kib(FieldOf(rollup, "Shared_Dirty"));
        record.uiPrivateClean = Kib(FieldOf(rollup, "Private_Clean"));
        record.uiPrivateDirty = Kib(FieldOf(rollup, "Private_Dirty"));
        record.uiSwapPss = Kib(FieldOf(rollup, "SwapPss"));
    }
    Describe(source, names, record);
    host::CopyText(record.szGroupName, names.Group(source.EffectiveId("Gid")));
    host::CopyText(record.szState, host::procfs::StateText(source.task.state));
    host::CopyText(record.szWaitChannel, text("wchan"));
    record.ullMinorFaults = source.task.minorFaults;
    record.ullMajorFaults = source.task.majorFaults;
    record.uiOomScore = NumberIn(text("oom_score")).value_or(0);
    return record;
}

std::vector<Tarn_sys_diag_SysOsMemInfo> Details(uint32_t pid) {
    UserNames names;
    if (pid != 0) {
        return {Detail(pid, names)};
    }
    std::vector<Tarn_sys_diag_SysOsMemInfo> records;
    for (const uint32_t id : host::procfs::Procfs().ProcessIds()) {
        host::procfs::SkipHidden([&] { records.push_back(Detail(id, names)); });
    }
    return records;
}

std::string_view WithoutDirectories(std::string_view name) {
    return name.starts_with('/') ? name.substr(name.rfind('/') + 1) : name;
}

std::vector<Tarn_sys_diag_SysProOs> Mappings(uint32_t pid) {
    std::vector<Tarn_sys_diag_SysProOs> records;
    host::procfs::ReadMappings(host::procfs::Procfs(), pid, [&](const host::procfs::Mapping &mapping) {
        if (records.size() == TARND_MAPPINGS_MAX) {
            throw std::system_error(EMSGSIZE, std::generic_category(),
                                    fmt::format("process {} has more than {} mappings", pid, TARND_MAPPINGS_MAX));
        }
        Tarn_sys_diag_SysProOs record{};
        record.uiPid = pid;
        host::CopyText(record.szAddrRange, mapping.range);
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
    return host::Answer<Tarn_sys_diag_SysMemStatisProResult>(__func__, replyCtx, [&](auto &reply) {
        reply.pstRecord = reply.Keep(tarnd::Selection(*request).Read(), reply.uiRecordNum);
        reply.uiMemTotal = tarnd::Kib(host::procfs::FieldOf(host::procfs::Procfs().Read("meminfo"), "MemTotal"));
    });
}

uint32_t GetOsProcessMemInfo(const Tarn_sys_diag_SysOsMemInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysOsMemInfoResult>(__func__, replyCtx, [&](auto &reply) {
        reply.pstProc = reply.Keep(tarnd::Details(request->uiPid), reply.uiProcNum);
    });
}

uint32_t GetOsProcessMapsInfo(const Tarn_sys_diag_SysProOsInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysProOsResult>(__func__, replyCtx, [&](auto &reply) {
        reply.pstMap = reply.Keep(tarnd::Mappings(request->uiPid), reply.uiMapNum);
    });
}
