// What the agent tells of the application's memory.
#include <dlfcn.h>
#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "host/agent/agent.h"
#include "host/agent/heap.h"
#include "host/agent/memory_report.h"
#include "host/agent/methods.h"
#include "host/agent/symbols.h"
#include "host/osal/log.h"

namespace agent {

namespace {

namespace app_memory = host::meaning::app_memory;
namespace damage_scan = host::meaning::damage_scan;
namespace memory_unit = host::meaning::memory_unit;
namespace top_handles = host::meaning::top_handles;

bool Matches(std::string_view pattern, const std::string &name) {
    return pattern.empty() || fnmatch(std::string(pattern).c_str(), name.c_str(), 0) == 0;
}

// A function's name as its author wrote it. The agent brings no demangler along: an application that needs one mostly
// has C++'s library, and else names stay as they are.
std::string Readable(const char *symbol) {
    using Demangle = char *(*)(const char *name, char *out, size_t *bytes, int *status);
    const auto demangle = reinterpret_cast<Demangle>(dlsym(RTLD_DEFAULT, "__cxa_demangle"));
    if (demangle == nullptr || !std::string_view(symbol).starts_with("_Z")) {
        return symbol;
    }
    const std::unique_ptr<char, void (*)(void *)> name(demangle(symbol, nullptr, nullptr, nullptr), free);
    return name == nullptr ? symbol : name.get();
}

// "name+0x1f", of which the name is cut where there is no room.
std::string FunctionText(uint64_t address) {
    char symbol[1024];
    const uint64_t offset = FunctionAt(address, symbol);
    if (symbol[0] == 0) {
        return "?";
    }
    const std::string place = fmt::format("+{:#x}", offset);
    return Readable(symbol).substr(0, sizeof(Tarn_sys_diag_FuncName::szFuncName) - 1 - place.size()) + place;
}

std::string FileName(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// Those with blocks, by what they hold.
std::vector<HandleInfo> LargestFirst(std::vector<HandleInfo> handles) {
    std::stable_sort(handles.begin(), handles.end(),
                     [](const HandleInfo &left, const HandleInfo &right) { return left.use.bytes > right.use.bytes; });
    return handles;
}

Tarn_sys_diag_MemHandleUse UseOf(const HandleInfo &handle) {
    Tarn_sys_diag_MemHandleUse use{};
    use.uiHandleId = handle.id;
    host::CopyText(use.szHandleName, handle.name);
    use.uiBlockNum = handle.use.blockNum;
    use.ullUsedBytes = handle.use.bytes;
    use.ullPeakBytes = handle.use.peakBytes;
    return use;
}

std::vector<Tarn_sys_diag_MemBlockClass> ClassesOf(const PartitionInfo &partition) {
    std::vector<Tarn_sys_diag_MemBlockClass> classes;
    for (size_t order = 0; order < partition.classes.size(); ++order) {
        const Partition::Class &one = partition.classes[order];
        classes.push_back({partition.blockBytes << order, one.usedNum, one.freeNum, one.peakNum});
    }
    return classes;
}

// Of a reply that is a text and a count.
template <class Reply>
void KeepReport(Reply &reply, const std::string &report, uint32_t number) {
    auto &[textLength, text, count] = reply.Members();
    text = reply.Keep(std::vector<uint8_t>(report.begin(), report.end()), textLength);
    count = number;
}

Tarn_sys_diag_AppMemUnit ToRecord(const HeapUse &heap) {
    Tarn_sys_diag_AppMemUnit unit{};
    unit.uiUnitId = memory_unit::kMalloc;
    host::CopyText(unit.szUnitName, memory_unit::kMalloc.name);
    unit.ullTotalBytes = heap.totalBytes;
    unit.ullUsedBytes = heap.usedBytes;
    unit.ullPeakBytes = heap.peakBytes;
    return unit;
}

// What a request wants of the application's memory.
class AppMemoryQuery {
public:
    AppMemoryQuery(const host::meaning::Method &method, const Tarn_sys_diag_GetAppMemInfoInput &request)
        : request_(request) {
        CheckProcess(method, request.uiPid);
    }

    bool Wants(uint32_t unitId, const std::string &unitName) const {
        return (request_.uiUnitId == 0 || request_.uiUnitId == unitId) &&
               Matches(host::TextOf(request_.szUnitName), unitName) &&
               Matches(host::TextOf(request_.szAppName), program_invocation_short_name);
    }
    bool Wants(const BlockInfo &block) const {
        return Wants(block.partitionId, block.partitionName) &&
               Matches(host::TextOf(request_.szModuleName), FileName(ModuleOf(block.site)));
    }

private:
    const Tarn_sys_diag_GetAppMemInfoInput &request_;
};

} // namespace

uint32_t GetProcPartitionMemHandleRecod(const Tarn_sys_diag_ProcPtRecodInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::GetProcPartitionMemHandleRecod, request, replyCtx, [&](auto &reply) {
        const auto &[partition, wanted, skip, most, inUse] = *request;
        Choice choice(skip, most);
        std::vector<Tarn_sys_diag_ProcPtRecod> records;
        for (const HandleInfo &handle : Agent::OfProcess().memory.Handles()) {
            if ((partition != 0 && handle.partitionId != partition) || (wanted != 0 && handle.id != wanted) ||
                (inUse != 0 && handle.use.blockNum == 0) || !choice.Takes()) {
                continue;
            }
            Tarn_sys_diag_ProcPtRecod record{};
            record.uiPtId = handle.partitionId;
            record.uiHandleId = handle.id;
            host::CopyText(record.szHandleName, handle.name);
            record.uiBlockSize = handle.blockBytes;
            record.uiBlockNum = handle.use.blockNum;
            record.uiPeakNum = handle.use.peakBlockNum;
            record.uiFailNum = handle.failNum;
            record.ullAllocNum = handle.allocNum;
            record.ullUsedBytes = handle.use.bytes;
            record.pcOwner = handle.owner.empty() ? nullptr : reply.Keep(handle.owner);
            record.puiTid = reply.Keep(std::vector(handle.tids.begin(), handle.tids.end()), record.uiTidNum);
            records.push_back(record);
        }
        reply.uiPid = OwnPid();
        reply.uiTotalNum = choice.Matches();
        reply.pstRecod = reply.Keep(std::move(records), reply.uiRecodNum);
    });
}

uint32_t GetMirelMemHandleInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetMirelMemHandleInfo, request, replyCtx, [](auto &reply) {
        auto &[openHandles, partitions, damages, handleNum, handles] = reply.Members();
        std::vector<Tarn_sys_diag_MirelMemHandleInfo> infos;
        for (const HandleInfo &one : Agent::OfProcess().memory.Handles()) {
            auto &[handle, name, used] = infos.emplace_back();
            handle = one.id;
            host::CopyText(name, one.name);
            used = one.use.bytes;
        }
        openHandles = static_cast<uint32_t>(infos.size());
        partitions = static_cast<uint32_t>(Agent::OfProcess().memory.Partitions().size());
        damages = Agent::OfProcess().memory.DamageNum();
        handles = reply.Keep(std::move(infos), handleNum);
    });
}

uint32_t GetTopNHandleInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::GetTopNHandleInfo, request, replyCtx, [](auto &reply) {
        const std::vector<HandleInfo> handles = LargestFirst(Agent::OfProcess().memory.Handles());
        std::vector<Tarn_sys_diag_MemHandleUse> uses;
        for (const HandleInfo &handle : handles) {
            reply.ullTotalBytes += handle.use.bytes;
            if (uses.size() < top_handles::kMost) {
                uses.push_back(UseOf(handle));
            }
        }
        reply.uiHandleTotal = static_cast<uint32_t>(handles.size());
        reply.pstHandle = reply.Keep(std::move(uses), reply.uiHandleNum);
    });
}

uint32_t GetMirelMemPtInfo(const Tarn_sys_diag_GetMirelMemPtInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::GetMirelMemPtInfo, request, replyCtx, [&](auto &reply) {
        const std::vector<PartitionInfo> partitions = Agent::OfProcess().memory.Partitions();
        const auto found = std::find_if(partitions.begin(), partitions.end(),
                                        [&](const PartitionInfo &one) { return one.id == request->uiPtId; });
        if (found == partitions.end()) {
            host::Fail(ENOENT, fmt::format("partition {}", request->uiPtId));
        }
        std::vector<Tarn_sys_diag_MemHandleUse> uses;
        for (const HandleInfo &handle : LargestFirst(Agent::OfProcess().memory.Handles())) {
            if (handle.partitionId == found->id && handle.use.blockNum != 0) {
                uses.push_back(UseOf(handle));
            }
        }
        reply.uiPtId = found->id;
        host::CopyText(reply.szPtName, found->name);
        reply.ullTotalBytes = found->totalBytes;
        reply.ullUsedBytes = found->usedBytes;
        reply.ullPeakBytes = found->peakBytes;
        reply.ullMaxFreeBytes = found->maxFreeBytes;
        reply.pstBlockClass = reply.Keep(ClassesOf(*found), reply.uiBlockClassNum);
        reply.pstHandle = reply.Keep(std::move(uses), reply.uiHandleNum);
    });
}

uint32_t MemDiag_ma(const Tarn_sys_diag_mem_RPCIN *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::MemDiag_ma, request, replyCtx, [&](auto &reply) {
        const auto *const argument = reinterpret_cast<const char *>(request->pucMemData);
        const Report report = Diagnose(Agent::OfProcess().memory, request->uiMemCmd, {argument, request->uiMemDataLen});
        auto &[result, textLength, text, lines] = reply.Members();
        lines = report.lineNum;
        text = reply.Keep(std::vector<uint8_t>(report.text.begin(), report.text.end()), textLength);
    });
}

uint32_t MemHandleCallStack(const Tarn_sys_diag_MemHandInfo *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::MemHandleCallStack, request, replyCtx, [&](auto &reply) {
        const std::vector<SiteUse> sites = Agent::OfProcess().memory.Sites(request->uiHandleId);
        if (request->uiStackIndex >= sites.size()) {
            host::Fail(ENOENT, fmt::format("allocation site {} of {}", request->uiStackIndex, sites.size()));
        }
        const SiteUse &site = sites[request->uiStackIndex];
        reply.uiHandleId = request->uiHandleId;
        reply.uiStackTotal = static_cast<uint32_t>(sites.size());
        reply.uiBlockNum = site.blockNum;
        reply.ullUsedBytes = site.bytes;
        for (const HandleInfo &handle : Agent::OfProcess().memory.Handles()) {
            if (handle.id == request->uiHandleId) {
                host::CopyText(reply.szHandleName, handle.name);
            }
        }
        reply.uiAddrNum = static_cast<uint32_t>(std::min(site.site.size(), std::size(reply.aullStackAddr)));
        std::copy_n(site.site.begin(), reply.uiAddrNum, reply.aullStackAddr);
    });
}

uint32_t GetCallStackFunction(const Tarn_sys_diag_CallStackInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetCallStackFunction, request, replyCtx, [&](auto &reply) {
        CheckProcess(host::methods::GetCallStackFunction, request->uiPid);
        for (size_t i = 0; i < std::size(request->aullStackAddr); ++i) {
            if (const uint64_t address = request->aullStackAddr[i]; address != 0) {
                host::CopyText(reply.astFuncName[i].szFuncName, FunctionText(address));
            }
        }
    });
}

uint32_t SetMemDmgScan(const Tarn_sys_diag_MemDmgScanIn *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::SetMemDmgScan, request, replyCtx, [&](auto &) {
        switch (request->uiScanSwitch) {
        case damage_scan::kOff:
            Agent::OfProcess().memoryScan.Stop();
            break;
        case damage_scan::kOn:
            Agent::OfProcess().memoryScan.Start();
            break;
        case damage_scan::kOnce:
            Agent::OfProcess().memory.Scan();
            break;
        }
    });
}

uint32_t GetMemDmgInfo(const Tarn_sys_diag_MemDmgInfoIn *request, void *replyCtx) {
    return host::Answer(host::methods::GetMemDmgInfo, request, replyCtx, [&](auto &reply) {
        const Report report = DamageReport(Agent::OfProcess().memory, request->uiInfoType);
        KeepReport(reply, report.text, report.lineNum);
    });
}

uint32_t TarnDetectMemHostage(const Tarn_sys_diag_None *request) {
    return host::Run(host::methods::TarnDetectMemHostage, request, [] {
        const uint32_t number = Agent::OfProcess().memory.DetectHostages();
        host::Log().info("memory: {} blocks are held though their threads have ended", number);
    });
}

uint32_t TarnGetAppMemUnitInfo(const Tarn_sys_diag_GetAppMemInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::TarnGetAppMemUnitInfo, request, replyCtx, [&](auto &reply) {
        const AppMemoryQuery query(host::methods::TarnGetAppMemUnitInfo, *request);
        Choice choice(request->uiStart, request->uiMaxNum);
        std::vector<Tarn_sys_diag_AppMemUnit> units;
        for (const PartitionInfo &partition : Agent::OfProcess().memory.Partitions()) {
            if (query.Wants(partition.id, partition.name) && choice.Takes()) {
                Tarn_sys_diag_AppMemUnit unit{};
                unit.uiUnitId = partition.id;
                host::CopyText(unit.szUnitName, partition.name);
                unit.ullTotalBytes = partition.totalBytes;
                unit.ullUsedBytes = partition.usedBytes;
                unit.ullPeakBytes = partition.peakBytes;
                unit.pstBlockClass = reply.Keep(ClassesOf(partition), unit.uiBlockClassNum);
                units.push_back(unit);
            }
        }
        if (query.Wants(memory_unit::kMalloc, std::string(memory_unit::kMalloc.name)) && choice.Takes()) {
            units.push_back(ToRecord(LookAtHeap(host::procfs::Procfs())));
        }
        reply.uiTotalNum = choice.Matches();
        reply.pstUnit = reply.Keep(std::move(units), reply.uiUnitNum);
    });
}

uint32_t TarnGetAppMemDetailOrModuleInfo(const Tarn_sys_diag_GetAppMemInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::TarnGetAppMemDetailOrModuleInfo, request, replyCtx, [&](auto &reply) {
        const AppMemoryQuery query(host::methods::TarnGetAppMemDetailOrModuleInfo, *request);
        Choice choice(request->uiStart, request->uiMaxNum);
        const bool byModule = request->uiQueryType == app_memory::kModules;
        const Memory &memory = Agent::OfProcess().memory;
        const Report report =
            byModule
                ? ModuleReport(
                      memory, [&](const BlockInfo &block) { return query.Wants(block); },
                      [&] { return choice.Takes(); })
                : DetailReport(memory, [&](const BlockInfo &block) { return query.Wants(block) && choice.Takes(); });
        KeepReport(reply, report.text, choice.Matches());
    });
}

} // namespace agent
