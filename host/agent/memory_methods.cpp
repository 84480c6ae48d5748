// What the agent tells of the application's memory.
#include <dlfcn.h>
#include <fnmatch.h>
#include <malloc.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>

#include "host/agent/memory.h"
#include "host/agent/methods.h"
#include "host/agent/stack.h"
#include "host/osal/log.h"
#include "host/values/agent.h"

namespace agent {

namespace {

std::atomic<uint64_t> mark = 0; // the number of the first allocation after it; 0: there is none

bool Matches(std::string_view pattern, const std::string &name) {
    return pattern.empty() || fnmatch(std::string(pattern).c_str(), name.c_str(), 0) == 0;
}

// The program or shared object of an allocation site.
std::string ModuleOf(const CallSite &site) {
    Dl_info info{};
    if (site.empty() || dladdr(reinterpret_cast<void *>(site[0] - 1), &info) == 0 || info.dli_fname == nullptr) {
        return "?";
    }
    return info.dli_fname;
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

// A text of lines, and how many they are without the head.
struct Table {
    std::string text;
    uint32_t lineNum = 0;

    void Add(const std::string &line) {
        text += line;
        ++lineNum;
    }
};

constexpr const char *kBlockHead = "         NUMBER            ADDRESS        BYTES PARTITION        HANDLE           "
                                   "    THREAD      AGE s ALLOCATED BY\n";

std::string BlockLine(const BlockInfo &block) {
    return fmt::format("{:>15} {:>18} {:>12} {:<16} {:<16} {:>10} {:>10.1f} {}\n", block.number,
                       fmt::format("{:#x}", block.address), block.bytes, block.partitionName, block.handleName,
                       block.tid, std::chrono::duration<double>(block.age).count(), SiteText(block.site));
}

Table Summary() {
    Table table{fmt::format("{:>4} {:<16} {:>10} {:>14} {:>14} {:>14} {:>14}\n", "ID", "PARTITION", "BLOCK",
                            "TOTAL bytes", "USED bytes", "PEAK bytes", "FREE at most")};
    for (const PartitionInfo &one : TheMemory().Partitions()) {
        table.Add(fmt::format("{:>4} {:<16} {:>10} {:>14} {:>14} {:>14} {:>14}\n", one.id, one.name, one.blockBytes,
                              one.totalBytes, one.usedBytes, one.peakBytes, one.maxFreeBytes));
    }
    return table;
}

Table Blocks(uint32_t handleId) {
    Table table{kBlockHead};
    for (const BlockInfo &block : TheMemory().Blocks(handleId)) {
        table.Add(BlockLine(block));
    }
    return table;
}

Table SetMark() {
    mark = TheMemory().NextNumber();
    return {fmt::format("allocations from number {} on count\n", mark.load()), 1};
}

Table SinceMark() {
    if (mark == 0) {
        throw std::system_error(ENODATA, std::generic_category(), "no mark was set");
    }
    std::map<CallSite, MemoryUse> sites;
    for (const BlockInfo &block : TheMemory().Blocks(0)) {
        if (block.number >= mark) {
            sites[block.site].Add(1, block.bytes);
        }
    }
    Table table{fmt::format("{:>10} {:>14} {}\n", "BLOCKS", "BYTES", "ALLOCATED BY")};
    for (const auto &[site, use] : sites) {
        table.Add(fmt::format("{:>10} {:>14} {}\n", use.blockNum, use.bytes, SiteText(site)));
    }
    return table;
}

// Read by the kernel, which refuses what is not there: the application may free it meanwhile.
std::vector<uint8_t> BytesAt(uint64_t address, size_t size) {
    std::vector<uint8_t> bytes(size);
    const iovec to{bytes.data(), size};
    const iovec from{reinterpret_cast<void *>(address), size};
    const ssize_t got = process_vm_readv(getpid(), &to, 1, &from, 1, 0);
    if (got < 0) {
        throw std::system_error(errno, std::generic_category(), fmt::format("memory at {:#x}", address));
    }
    bytes.resize(static_cast<size_t>(got));
    return bytes;
}

Table Look(uint64_t address) {
    const std::optional<BlockInfo> block = TheMemory().BlockAt(address);
    if (!block) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("no block at {:#x}", address));
    }
    Table table{kBlockHead};
    table.Add(BlockLine(*block));
    const std::vector<uint8_t> bytes = BytesAt(block->address, std::min<uint64_t>(block->bytes, 256));
    for (size_t i = 0; i < bytes.size(); i += 16) {
        const size_t length = std::min<size_t>(16, bytes.size() - i);
        table.Add(fmt::format("{:#x} {:02x}\n", block->address + i,
                              fmt::join(bytes.begin() + static_cast<ptrdiff_t>(i),
                                        bytes.begin() + static_cast<ptrdiff_t>(i + length), " ")));
    }
    return table;
}

// The number in a command's argument, decimal or hexadecimal behind 0x; none: `otherwise`.
uint64_t Number(std::string_view text, std::optional<uint64_t> otherwise) {
    while (!text.empty() && (text.back() == 0 || text.back() == ' ' || text.back() == '\n')) {
        text.remove_suffix(1);
    }
    if (text.empty() && otherwise) {
        return *otherwise;
    }
    const int base = text.starts_with("0x") ? 16 : 10;
    const std::string_view digits = base == 16 ? text.substr(2) : text;
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        throw host::BadValue("the argument", fmt::format("\"{}\"", text), "a number, or 0x and a hexadecimal one");
    }
    return number;
}

uint32_t HandleNumber(std::string_view text) {
    const uint64_t number = Number(text, 0);
    if (number > UINT32_MAX) {
        throw host::BadValue("the argument", number, "a handle");
    }
    return static_cast<uint32_t>(number);
}

Table Diagnose(uint32_t command, std::string_view argument) {
    switch (command) {
    case TARN_AGENT_MEM_SUMMARY:
        return Summary();
    case TARN_AGENT_MEM_BLOCKS:
        return Blocks(HandleNumber(argument));
    case TARN_AGENT_MEM_MARK:
        return SetMark();
    case TARN_AGENT_MEM_SINCE:
        return SinceMark();
    case TARN_AGENT_MEM_LOOK:
        return Look(Number(argument, {}));
    default:
        throw host::BadValue("uiMemCmd", command, "1 to 5");
    }
}

template <class Reply>
void KeepBytes(Reply &reply, const std::string &text) {
    reply.pucInfo = reply.Keep(std::vector<uint8_t>(text.begin(), text.end()), reply.uiInfoLen);
}

// The C library's heap. The peak is the most that was seen when it was asked for.
Tarn_sys_diag_AppMemUnit MallocUnit() {
    static std::atomic<uint64_t> peak = 0;
    const struct mallinfo2 info = mallinfo2();
    Tarn_sys_diag_AppMemUnit unit{};
    unit.uiUnitId = TARN_AGENT_UNIT_MALLOC;
    host::CopyText(unit.szUnitName, "malloc");
    unit.ullTotalBytes = info.arena + info.hblkhd;
    unit.ullUsedBytes = info.uordblks + info.hblkhd;
    for (uint64_t before = peak;
         before < unit.ullUsedBytes && !peak.compare_exchange_weak(before, unit.ullUsedBytes);) {
    }
    unit.ullPeakBytes = peak;
    return unit;
}

// What a request wants of the application's memory.
class AppMemoryQuery {
public:
    explicit AppMemoryQuery(const Tarn_sys_diag_GetAppMemInfoInput &request) : request_(request) {
        CheckProcess("uiPid", request.uiPid);
        if (request.uiModuleId != 0) {
            throw host::BadValue("uiModuleId", request.uiModuleId, "0: modules are chosen by name");
        }
    }

    bool Wants(uint32_t unitId, const std::string &unitName) const {
        return (request_.uiUnitId == 0 || request_.uiUnitId == unitId) &&
               Matches(host::TextOf(request_.szUnitName), unitName) &&
               Matches(host::TextOf(request_.szAppName), program_invocation_short_name);
    }
    bool Wants(const BlockInfo &block, const std::string &module) const {
        return Wants(block.partitionId, block.partitionName) &&
               Matches(host::TextOf(request_.szModuleName), FileName(module));
    }

private:
    const Tarn_sys_diag_GetAppMemInfoInput &request_;
};

Table Details(const AppMemoryQuery &query, Choice &choice) {
    Table table{kBlockHead};
    for (const BlockInfo &block : TheMemory().Blocks(0)) {
        if (query.Wants(block, ModuleOf(block.site)) && choice.Takes()) {
            table.Add(BlockLine(block));
        }
    }
    return table;
}

Table Modules(const AppMemoryQuery &query, Choice &choice) {
    std::map<std::string, MemoryUse> modules;
    for (const BlockInfo &block : TheMemory().Blocks(0)) {
        const std::string module = ModuleOf(block.site);
        if (query.Wants(block, module)) {
            modules[module].Add(1, block.bytes);
        }
    }
    Table table{fmt::format("{:>10} {:>14} {}\n", "BLOCKS", "BYTES", "MODULE")};
    for (const auto &[module, use] : modules) {
        if (choice.Takes()) {
            table.Add(fmt::format("{:>10} {:>14} {}\n", use.blockNum, use.bytes, module));
        }
    }
    return table;
}

} // namespace

uint32_t GetProcPartitionMemHandleRecod(const Tarn_sys_diag_ProcPtRecodInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_ProcPtRecodResult>(__func__, replyCtx, [&](auto &reply) {
        Choice choice(request->uiPtParam3, request->uiPtParam4);
        std::vector<Tarn_sys_diag_ProcPtRecod> records;
        for (const HandleInfo &handle : TheMemory().Handles()) {
            if ((request->uiPtParam1 != 0 && handle.partitionId != request->uiPtParam1) ||
                (request->uiPtParam2 != 0 && handle.id != request->uiPtParam2) ||
                (request->uiPtParam5 != 0 && handle.use.blockNum == 0) || !choice.Takes()) {
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
        reply.uiPid = static_cast<uint32_t>(getpid());
        reply.uiTotalNum = choice.Matches();
        reply.pstRecod = reply.Keep(std::move(records), reply.uiRecodNum);
    });
}

uint32_t GetMirelMemHandleInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetMirelMemHandleInfoOutput>(__func__, replyCtx, [](auto &reply) {
        std::vector<Tarn_sys_diag_MirelMemHandleInfo> handles;
        for (const HandleInfo &handle : TheMemory().Handles()) {
            Tarn_sys_diag_MirelMemHandleInfo info{};
            info.uiValue = handle.id;
            host::CopyText(info.szName, handle.name);
            info.ullValue = handle.use.bytes;
            handles.push_back(info);
        }
        reply.uiValue1 = static_cast<uint32_t>(handles.size());
        reply.uiValue2 = static_cast<uint32_t>(TheMemory().Partitions().size());
        reply.uiValue3 = TheMemory().DamageNum();
        reply.pstHandle = reply.Keep(std::move(handles), reply.uiHandleNum);
    });
}

uint32_t GetTopNHandleInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetTopNHandleInfoOutput>(__func__, replyCtx, [](auto &reply) {
        const std::vector<HandleInfo> handles = LargestFirst(TheMemory().Handles());
        std::vector<Tarn_sys_diag_MemHandleUse> uses;
        for (const HandleInfo &handle : handles) {
            reply.ullTotalBytes += handle.use.bytes;
            if (uses.size() < TARN_AGENT_TOP_HANDLES) {
                uses.push_back(UseOf(handle));
            }
        }
        reply.uiHandleTotal = static_cast<uint32_t>(handles.size());
        reply.pstHandle = reply.Keep(std::move(uses), reply.uiHandleNum);
    });
}

uint32_t GetMirelMemPtInfo(const Tarn_sys_diag_GetMirelMemPtInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetMirelMemPtInfoOutput>(__func__, replyCtx, [&](auto &reply) {
        const std::vector<PartitionInfo> partitions = TheMemory().Partitions();
        const auto found = std::find_if(partitions.begin(), partitions.end(),
                                        [&](const PartitionInfo &one) { return one.id == request->uiPtId; });
        if (found == partitions.end()) {
            throw std::system_error(ENOENT, std::generic_category(), fmt::format("partition {}", request->uiPtId));
        }
        std::vector<Tarn_sys_diag_MemHandleUse> uses;
        for (const HandleInfo &handle : LargestFirst(TheMemory().Handles())) {
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
    return host::Answer<Tarn_sys_diag_mem_PRCOUT>(__func__, replyCtx, [&](auto &reply) {
        reply.uiValue1 = host::Run("MemDiag_ma", [&] {
            const auto *const argument = reinterpret_cast<const char *>(request->pucMemData);
            const Table table = Diagnose(request->uiMemCmd, {argument, request->uiMemDataLen});
            reply.uiValue2 = table.lineNum;
            reply.pucData = reply.Keep(std::vector<uint8_t>(table.text.begin(), table.text.end()), reply.uiDataLen);
        });
    });
}

uint32_t MemHandleCallStack(const Tarn_sys_diag_MemHandInfo *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_MemHandInfoOut>(__func__, replyCtx, [&](auto &reply) {
        const std::vector<SiteUse> sites = TheMemory().Sites(request->uiHandleId);
        if (request->uiStackIndex >= sites.size()) {
            throw std::system_error(ENOENT, std::generic_category(),
                                    fmt::format("allocation site {} of {}", request->uiStackIndex, sites.size()));
        }
        const SiteUse &site = sites[request->uiStackIndex];
        reply.uiHandleId = request->uiHandleId;
        reply.uiStackTotal = static_cast<uint32_t>(sites.size());
        reply.uiBlockNum = site.blockNum;
        reply.ullUsedBytes = site.bytes;
        for (const HandleInfo &handle : TheMemory().Handles()) {
            if (handle.id == request->uiHandleId) {
                host::CopyText(reply.szHandleName, handle.name);
            }
        }
        reply.uiAddrNum = static_cast<uint32_t>(std::min(site.site.size(), std::size(reply.aullStackAddr)));
        std::copy_n(site.site.begin(), reply.uiAddrNum, reply.aullStackAddr);
    });
}

uint32_t GetCallStackFunction(const Tarn_sys_diag_CallStackInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_CallStackOutput>(__func__, replyCtx, [&](auto &reply) {
        CheckProcess("uiPid", request->uiPid);
        for (size_t i = 0; i < std::size(request->aullStackAddr); ++i) {
            char name[100];
            if (const uint64_t address = request->aullStackAddr[i]; address != 0) {
                const uint64_t offset = FunctionAt(address, name);
                host::CopyText(reply.astFuncName[i].szFuncName,
                               name[0] == 0 ? "?" : fmt::format("{}+{:#x}", name, offset));
            }
        }
    });
}

uint32_t SetMemDmgScan(const Tarn_sys_diag_MemDmgScanIn *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_MemDmgScanOut>(__func__, replyCtx, [&](auto &) {
        switch (request->uiScanSwitch) {
        case TARN_AGENT_SCAN_OFF:
        case TARN_AGENT_SCAN_ON:
            TheMemory().SetScan(request->uiScanSwitch == TARN_AGENT_SCAN_ON);
            break;
        case TARN_AGENT_SCAN_ONCE:
            TheMemory().Scan();
            break;
        default:
            throw host::BadValue("uiScanSwitch", request->uiScanSwitch, "0 off, 1 on or 2 once");
        }
    });
}

uint32_t GetMemDmgInfo(const Tarn_sys_diag_MemDmgInfoIn *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_MemDmgInfoOut>(__func__, replyCtx, [&](auto &reply) {
        if (request->uiInfoType > TARN_AGENT_DAMAGE_HOSTAGES) {
            throw host::BadValue("uiInfoType", request->uiInfoType, "0 all, 1 damaged blocks or 2 hostages");
        }
        Table table;
        if (request->uiInfoType != TARN_AGENT_DAMAGE_HOSTAGES) {
            for (const Damage &damage : TheMemory().Damages()) {
                table.Add(fmt::format("{} {}\n", damage.when, damage.text));
            }
        }
        if (request->uiInfoType != TARN_AGENT_DAMAGE_BLOCKS) {
            for (const BlockInfo &block : TheMemory().Hostages()) {
                table.Add(fmt::format("block {:#x} of {} bytes, handle {} \"{}\", allocated by {}: its thread {} has "
                                      "ended\n",
                                      block.address, block.bytes, block.handleId, block.handleName,
                                      SiteText(block.site), block.tid));
            }
        }
        reply.uiValue1 = table.lineNum;
        KeepBytes(reply, table.text);
    });
}

uint32_t TarnDetectMemHostage(const Tarn_sys_diag_None *) {
    return host::Run(__func__, [] {
        const uint32_t number = TheMemory().DetectHostages();
        host::Log().info("memory: {} blocks are held though their threads have ended", number);
    });
}

uint32_t TarnGetAppMemUnitInfo(const Tarn_sys_diag_GetAppMemInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetAppMemUnitInfoOutput>(__func__, replyCtx, [&](auto &reply) {
        const AppMemoryQuery query(*request);
        if (request->uiQueryType != TARN_AGENT_APP_MEM_UNITS) {
            throw host::BadValue("uiQueryType", request->uiQueryType, "0, units");
        }
        Choice choice(request->uiStart, request->uiMaxNum);
        std::vector<Tarn_sys_diag_AppMemUnit> units;
        for (const PartitionInfo &partition : TheMemory().Partitions()) {
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
        if (query.Wants(TARN_AGENT_UNIT_MALLOC, "malloc") && choice.Takes()) {
            units.push_back(MallocUnit());
        }
        reply.uiTotalNum = choice.Matches();
        reply.pstUnit = reply.Keep(std::move(units), reply.uiUnitNum);
    });
}

uint32_t TarnGetAppMemDetailOrModuleInfo(const Tarn_sys_diag_GetAppMemInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetAppMemDetailOrModuleInfoOutput>(__func__, replyCtx, [&](auto &reply) {
        const AppMemoryQuery query(*request);
        if (request->uiQueryType > TARN_AGENT_APP_MEM_MODULES) {
            throw host::BadValue("uiQueryType", request->uiQueryType, "1 details or 2 modules");
        }
        Choice choice(request->uiStart, request->uiMaxNum);
        const Table table =
            request->uiQueryType == TARN_AGENT_APP_MEM_MODULES ? Modules(query, choice) : Details(query, choice);
        reply.uiValue1 = choice.Matches();
        KeepBytes(reply, table.text);
    });
}

} // namespace agent
