#include "host/agent/memory_report.h"

#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include <fmt/format.h>

#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/osal/hex.h"
#include "host/osal/text.h"

namespace agent {

namespace {

namespace damage_report = host::meaning::damage_report;
namespace memory_command = host::meaning::memory_command;

constexpr const char *kBlockHead = "         NUMBER            ADDRESS        BYTES PARTITION        HANDLE           "
                                   "    THREAD      AGE s ALLOCATED BY\n";

std::string SecondsOf(std::chrono::steady_clock::duration time) {
    const auto tenths = std::chrono::round<std::chrono::duration<int64_t, std::deci>>(time).count();
    return fmt::format("{}.{}", tenths / 10, tenths % 10);
}

std::string BlockLine(const BlockInfo &block) {
    return fmt::format("{:>15} {:>18} {:>12} {:<16} {:<16} {:>10} {:>10} {}\n", block.number,
                       fmt::format("{:#x}", block.address), block.bytes, host::LineOfText(block.partitionName),
                       host::LineOfText(block.handleName), block.tid, SecondsOf(block.age), SiteText(block.site));
}

Report Summary(const Memory &memory) {
    Report report{fmt::format("{:>4} {:<16} {:>10} {:>14} {:>14} {:>14} {:>14}\n", "ID", "PARTITION", "BLOCK",
                              "TOTAL bytes", "USED bytes", "PEAK bytes", "FREE at most")};
    for (const PartitionInfo &one : memory.Partitions()) {
        report.Add(fmt::format("{:>4} {:<16} {:>10} {:>14} {:>14} {:>14} {:>14}\n", one.id, host::LineOfText(one.name),
                               one.blockBytes, one.totalBytes, one.usedBytes, one.peakBytes, one.maxFreeBytes));
    }
    return report;
}

Report Blocks(const Memory &memory, uint32_t handleId) {
    Report report{kBlockHead};
    for (const BlockInfo &block : memory.Blocks(handleId)) {
        report.Add(BlockLine(block));
    }
    return report;
}

Report SetMark(Memory &memory) {
    return {fmt::format("allocations from number {} on count\n", memory.SetMark()), 1};
}

Report SinceMark(const Memory &memory) {
    std::map<CallSite, MemoryUse> sites;
    for (const BlockInfo &block : memory.BlocksSinceMark()) {
        sites[block.site].Add(1, block.bytes);
    }
    Report report{fmt::format("{:>10} {:>14} {}\n", "BLOCKS", "BYTES", "ALLOCATED BY")};
    for (const auto &[site, use] : sites) {
        report.Add(fmt::format("{:>10} {:>14} {}\n", use.blockNum, use.bytes, SiteText(site)));
    }
    return report;
}

// Read by the kernel, which refuses what is not there: the application may free it meanwhile.
std::vector<uint8_t> BytesAt(uint64_t address, size_t size) {
    std::vector<uint8_t> bytes(size);
    const iovec to{bytes.data(), size};
    const iovec from{reinterpret_cast<void *>(address), size};
    const ssize_t got = process_vm_readv(getpid(), &to, 1, &from, 1, 0);
    if (got < 0) {
        host::Fail(errno, fmt::format("memory at {:#x}", address));
    }
    bytes.resize(static_cast<size_t>(got));
    return bytes;
}

Report Look(const Memory &memory, uint64_t address) {
    const std::optional<BlockInfo> block = memory.BlockAt(address);
    if (!block) {
        host::Fail(ENOENT, fmt::format("no block at {:#x}", address));
    }
    Report report{kBlockHead};
    report.Add(BlockLine(*block));
    const std::vector<uint8_t> bytes =
        BytesAt(block->address, static_cast<size_t>(std::min<uint64_t>(block->bytes, 256)));
    for (size_t i = 0; i < bytes.size(); i += 16) {
        const size_t length = std::min<size_t>(16, bytes.size() - i);
        report.Add(fmt::format("{:#x} {}\n", block->address + i, host::Hex(std::span(bytes).subspan(i, length), " ")));
    }
    return report;
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
        throw host::meaning::BadMember(host::methods::MemDiag_ma, "argument", text,
                                       "a number, or 0x and a hexadecimal one");
    }
    return number;
}

uint32_t HandleNumber(std::string_view text) {
    const uint64_t number = Number(text, 0);
    if (number > UINT32_MAX) {
        throw host::meaning::BadMember(host::methods::MemDiag_ma, "argument", text, "a handle");
    }
    return static_cast<uint32_t>(number);
}

} // namespace

Report Diagnose(Memory &memory, uint32_t command, std::string_view argument) {
    switch (command) {
    case memory_command::kSummary:
        return Summary(memory);
    case memory_command::kBlocks:
        return Blocks(memory, HandleNumber(argument));
    case memory_command::kMark:
        return SetMark(memory);
    case memory_command::kSince:
        return SinceMark(memory);
    default: // memory_command::kLook
        return Look(memory, Number(argument, {}));
    }
}

// The program or shared object of an allocation site.
std::string ModuleOf(const CallSite &site) {
    Dl_info info{};
    if (site.empty() || dladdr(reinterpret_cast<void *>(site[0] - 1), &info) == 0 || info.dli_fname == nullptr) {
        return "?";
    }
    return info.dli_fname;
}

Report DetailReport(const Memory &memory, const TakesBlock &takes) {
    Report report{kBlockHead};
    for (const BlockInfo &block : memory.Blocks(0)) {
        if (takes(block)) {
            report.Add(BlockLine(block));
        }
    }
    return report;
}

Report ModuleReport(const Memory &memory, const TakesBlock &takes, const std::function<bool()> &takesModule) {
    std::map<std::string, MemoryUse> modules;
    for (const BlockInfo &block : memory.Blocks(0)) {
        if (takes(block)) {
            modules[ModuleOf(block.site)].Add(1, block.bytes);
        }
    }
    Report report{fmt::format("{:>10} {:>14} {}\n", "BLOCKS", "BYTES", "MODULE")};
    for (const auto &[module, use] : modules) {
        if (takesModule()) {
            report.Add(fmt::format("{:>10} {:>14} {}\n", use.blockNum, use.bytes, host::LineOfText(module)));
        }
    }
    return report;
}

Report DamageReport(const Memory &memory, uint32_t type) {
    Report report;
    if (type != damage_report::kHostages) {
        for (const Damage &damage : memory.Damages()) {
            report.Add(fmt::format("{} {}\n", damage.when, host::LineOfText(damage.text)));
        }
    }
    if (type != damage_report::kDamages) {
        for (const BlockInfo &block : memory.Hostages()) {
            report.Add(fmt::format("block {:#x} of {} bytes, handle {} \"{}\", allocated by {}: its thread {} has "
                                   "ended\n",
                                   block.address, block.bytes, block.handleId, host::LineOfText(block.handleName),
                                   SiteText(block.site), block.tid));
        }
    }
    return report;
}

} // namespace agent
