#include "host/agent/memory.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "host/agent/symbols.h"
#include "host/clock/calendar.h"
#include "host/osal/error.h"
#include "host/osal/log.h"

namespace agent {

namespace {

constexpr size_t kFrontGuard = 32; // keeps what the application gets aligned as strictly as its run
constexpr size_t kBackGuard = 16;  // at least; all that the application did not ask for is guard, up to kMaxBackGuard
constexpr size_t kMaxBackGuard = 64;
constexpr uint8_t kGuard = 0xFD;
constexpr uint32_t kMinBlockBytes = 64;
constexpr size_t kMaxSites = 256; // of a handle; the rest counts under one without addresses
constexpr size_t kMaxDamages = 64;
constexpr size_t kScanAtOnce = 256; // blocks, so that an allocation never waits long

uint64_t AddressOf(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

bool IsName(const char *name, size_t room) {
    return name != nullptr && *name != 0 && strlen(name) < room;
}

size_t BackGuard(const Partition &memory, const Partition::Run &run, size_t bytes) {
    return std::min(memory.RunBytes(run.order) - kFrontGuard - bytes, kMaxBackGuard);
}

// The first byte that is not as a guard should be, or `size`.
size_t FirstWrong(const volatile uint8_t *guard, size_t size) {
    size_t i = 0;
    while (i < size && guard[i] == kGuard) {
        ++i;
    }
    return i;
}

} // namespace

std::string SiteText(const CallSite &site) {
    if (site.empty()) {
        return "?";
    }
    char name[128];
    const uint64_t offset = FunctionAt(site[0] - 1, name);
    return name[0] == 0 ? fmt::format("{:#x}", site[0]) : fmt::format("{}+{:#x}", name, offset + 1);
}

void MemoryUse::Add(uint32_t blocks, uint64_t more) {
    blockNum += blocks;
    peakBlockNum = std::max(peakBlockNum, blockNum);
    bytes += more;
    peakBytes = std::max(peakBytes, bytes);
}

void MemoryUse::Remove(uint32_t blocks, uint64_t less) {
    blockNum -= blocks;
    bytes -= less;
}

// Tells, when its thread ends, whose blocks the thread has left behind.
struct Memory::OwnerOfThread {
    const std::shared_ptr<Owner> owner = std::make_shared<Owner>(static_cast<uint32_t>(gettid()));
    ~OwnerOfThread() { owner->ended = true; }
};

std::shared_ptr<const Memory::Owner> Memory::OwnerOfThisThread() {
    static thread_local const OwnerOfThread thread;
    return thread.owner;
}

uint32_t Memory::CreatePartition(const char *name, uint64_t bytes, uint32_t blockBytes, uint32_t &id) {
    const bool accounted = bytes == 0 && blockBytes == 0;
    if (!IsName(name, 32) ||
        (!accounted && (blockBytes < kMinBlockBytes || (blockBytes & (blockBytes - 1)) != 0 || bytes < blockBytes))) {
        return EINVAL;
    }
    std::unique_ptr<Partition> memory;
    if (!accounted) {
        memory = std::make_unique<Partition>(bytes, blockBytes);
    }
    const host::MutexLock lock(mutex_);
    id = ++lastPartition_;
    partitions_.emplace(id, PartitionState{name, std::move(memory), {}, 0});
    return 0;
}

uint32_t Memory::DestroyPartition(uint32_t id) {
    const host::MutexLock lock(mutex_);
    const auto found = partitions_.find(id);
    if (found == partitions_.end()) {
        return ENOENT;
    }
    if (found->second.handleNum != 0) {
        return EBUSY;
    }
    partitions_.erase(found);
    return 0;
}

uint32_t Memory::OpenHandle(uint32_t partitionId, const char *name, std::string owner, uint32_t &id) {
    if (!IsName(name, 32)) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    const auto partition = partitions_.find(partitionId);
    if (partition == partitions_.end()) {
        return ENOENT;
    }
    ++partition->second.handleNum;
    id = ++lastHandle_;
    HandleState &handle = handles_[id];
    handle.id = id;
    handle.name = name;
    handle.partitionId = partitionId;
    handle.owner = std::move(owner);
    if (partition->second.memory != nullptr) {
        handle.blockBytes = static_cast<uint32_t>(partition->second.memory->BlockBytes());
    }
    return 0;
}

uint32_t Memory::CloseHandle(uint32_t id) {
    const host::MutexLock lock(mutex_);
    const auto found = handles_.find(id);
    if (found == handles_.end()) {
        return ENOENT;
    }
    if (found->second.use.blockNum != 0) {
        return EBUSY;
    }
    --partitions_.at(found->second.partitionId).handleNum;
    handles_.erase(found);
    return 0;
}

uint32_t Memory::BlocksOf(const HandleState &handle, const Partition::Run &run) const {
    return handle.blockBytes == 0 ? 1 : 1U << run.order;
}

void Memory::Keep(HandleState &handle, uint64_t address, uint64_t bytes, const Partition::Run &run, CallSite site) {
    const uint32_t blocks = BlocksOf(handle, run);
    if (handle.sites.size() >= kMaxSites && handle.sites.count(site) == 0) {
        site.clear();
    }
    const auto entry = handle.sites.try_emplace(std::move(site)).first;
    const std::shared_ptr<const Owner> owner = OwnerOfThisThread();
    handle.tids.insert(owner->tid);
    blocks_.emplace(address, Block{nextNumber_, bytes, handle.id, run, entry, owner, clocks_.SteadyNow()});
    ++nextNumber_;
    ++handle.allocNum;
    entry->second.Add(blocks, bytes);
    handle.use.Add(blocks, bytes);
    PartitionState &partition = partitions_.at(handle.partitionId);
    if (partition.memory == nullptr) {
        partition.accounted.Add(blocks, bytes);
    }
}

void Memory::Forget(BlockMap::iterator found) {
    const Block &block = found->second;
    HandleState &handle = handles_.at(block.handleId);
    PartitionState &partition = partitions_.at(handle.partitionId);
    const uint32_t blocks = BlocksOf(handle, block.run);
    handle.use.Remove(blocks, block.bytes);
    block.site->second.Remove(blocks, block.bytes);
    if (block.site->second.blockNum == 0) {
        handle.sites.erase(block.site);
    }
    if (partition.memory == nullptr) {
        partition.accounted.Remove(blocks, block.bytes);
    } else {
        partition.memory->Give(block.run);
    }
    blocks_.erase(found);
}

void *Memory::Allocate(uint32_t handleId, size_t bytes, CallSite site) {
    const host::MutexLock lock(mutex_);
    const auto found = handles_.find(handleId);
    if (found == handles_.end() || found->second.blockBytes == 0) {
        return nullptr;
    }
    HandleState &handle = found->second;
    Partition &memory = *partitions_.at(handle.partitionId).memory;
    Partition::Run run;
    if (bytes <= memory.TotalBytes()) { // the sum can't wrap
        run = memory.Take(kFrontGuard + bytes + kBackGuard);
    }
    if (run.start == nullptr) {
        ++handle.failNum;
        return nullptr;
    }
    char *const start = run.start + kFrontGuard;
    try {
        Keep(handle, AddressOf(start), bytes, run, std::move(site));
    } catch (...) {
        memory.Give(run);
        throw;
    }
    memset(run.start, kGuard, kFrontGuard);
    memset(start + bytes, kGuard, BackGuard(memory, run, bytes));
    return start;
}

void Memory::Free(void *start) {
    if (start == nullptr) {
        return;
    }
    const host::MutexLock lock(mutex_);
    const auto found = blocks_.find(AddressOf(start));
    if (found == blocks_.end() || found->second.run.start == nullptr) {
        AddDamage(fmt::format("{} was freed, but is no block: freed twice, or never allocated here", start));
        return;
    }
    CheckGuards(found->first, found->second);
    Forget(found);
}

uint32_t Memory::Account(uint32_t handleId, const void *start, size_t bytes, CallSite site) {
    if (start == nullptr) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    const auto found = handles_.find(handleId);
    if (found == handles_.end()) {
        return ENOENT;
    }
    if (found->second.blockBytes != 0) {
        return EINVAL;
    }
    if (blocks_.count(AddressOf(start)) != 0) {
        return EEXIST;
    }
    Keep(found->second, AddressOf(start), bytes, {}, std::move(site));
    return 0;
}

uint32_t Memory::Unaccount(const void *start) {
    const host::MutexLock lock(mutex_);
    const auto found = blocks_.find(AddressOf(start));
    if (found == blocks_.end() || found->second.run.start != nullptr) {
        return ENOENT;
    }
    Forget(found);
    return 0;
}

// Each block is told of once. False when it was sound and is not any more.
bool Memory::CheckGuards(uint64_t address, Block &block) {
    if (block.run.start == nullptr || block.damaged) {
        return true;
    }
    const HandleState &handle = handles_.at(block.handleId);
    const Partition &memory = *partitions_.at(handle.partitionId).memory;
    const auto *const start = reinterpret_cast<const volatile uint8_t *>(address);
    const size_t back = BackGuard(memory, block.run, static_cast<size_t>(block.bytes));
    const size_t before = FirstWrong(start - kFrontGuard, kFrontGuard);
    const size_t behind = FirstWrong(start + block.bytes, back);
    if (before == kFrontGuard && behind == back) {
        return true;
    }
    block.damaged = true;
    const std::string where = before != kFrontGuard ? fmt::format("{} bytes before its start", kFrontGuard - before)
                                                    : fmt::format("{} bytes behind its end", behind);
    AddDamage(fmt::format("block {:#x} of {} bytes, handle {} \"{}\", thread {}, allocated by {}: overwritten {}",
                          address, block.bytes, handle.id, handle.name, block.owner->tid, SiteText(block.site->first),
                          where));
    return false;
}

void Memory::AddDamage(std::string text) {
    host::Log().error("memory damage: {}", text);
    ++damageNum_;
    damages_.push_back({host::TextOf(host::SystemsTime(clocks_.WallNow())), std::move(text)});
    if (damages_.size() > kMaxDamages) {
        damages_.pop_front();
    }
}

uint32_t Memory::Scan() {
    uint32_t found = 0;
    uint64_t next = 0;
    for (bool more = true; more;) {
        const host::MutexLock lock(mutex_);
        auto block = blocks_.lower_bound(next);
        for (size_t i = 0; i < kScanAtOnce && block != blocks_.end(); ++i, ++block) {
            found += CheckGuards(block->first, block->second) ? 0 : 1;
        }
        more = block != blocks_.end();
        next = more ? block->first : 0;
    }
    return found;
}

std::vector<Damage> Memory::Damages() const {
    const host::MutexLock lock(mutex_);
    return {damages_.begin(), damages_.end()};
}

uint32_t Memory::DamageNum() const {
    const host::MutexLock lock(mutex_);
    return damageNum_;
}

uint32_t Memory::DetectHostages() {
    const host::MutexLock lock(mutex_);
    hostages_.clear();
    for (const auto &[address, block] : blocks_) {
        if (block.owner->ended) {
            hostages_.push_back(block.number);
        }
    }
    return static_cast<uint32_t>(hostages_.size());
}

std::vector<BlockInfo> Memory::Hostages() const {
    const host::MutexLock lock(mutex_);
    const std::set<uint64_t> numbers(hostages_.begin(), hostages_.end());
    std::vector<BlockInfo> infos;
    for (const auto &[address, block] : blocks_) {
        if (numbers.count(block.number) != 0) {
            infos.push_back(InfoOf(address, block));
        }
    }
    return infos;
}

BlockInfo Memory::InfoOf(uint64_t address, const Block &block) const {
    const HandleState &handle = handles_.at(block.handleId);
    return {block.number,
            address,
            block.bytes,
            handle.id,
            handle.name,
            handle.partitionId,
            partitions_.at(handle.partitionId).name,
            block.owner->tid,
            block.owner->ended,
            clocks_.SteadyNow() - block.since,
            block.site->first};
}

std::vector<PartitionInfo> Memory::Partitions() const {
    const host::MutexLock lock(mutex_);
    std::vector<PartitionInfo> infos;
    for (const auto &[id, partition] : partitions_) {
        PartitionInfo info{id,
                           partition.name,
                           0,
                           partition.accounted.bytes,
                           partition.accounted.bytes,
                           partition.accounted.peakBytes,
                           0,
                           {}};
        if (const Partition *const memory = partition.memory.get(); memory != nullptr) {
            info.blockBytes = static_cast<uint32_t>(memory->BlockBytes());
            info.totalBytes = memory->TotalBytes();
            info.usedBytes = memory->UsedBytes();
            info.peakBytes = memory->PeakBytes();
            info.maxFreeBytes = memory->MaxFreeBytes();
            info.classes = memory->Classes();
        }
        infos.push_back(std::move(info));
    }
    return infos;
}

std::vector<HandleInfo> Memory::Handles() const {
    const host::MutexLock lock(mutex_);
    std::vector<HandleInfo> infos;
    for (const auto &[id, handle] : handles_) {
        infos.push_back(handle);
    }
    return infos;
}

std::vector<BlockInfo> Memory::Blocks(uint32_t handleId) const {
    const host::MutexLock lock(mutex_);
    std::vector<BlockInfo> infos;
    for (const auto &[address, block] : blocks_) {
        if (handleId == 0 || block.handleId == handleId) {
            infos.push_back(InfoOf(address, block));
        }
    }
    return infos;
}

std::vector<SiteUse> Memory::Sites(uint32_t handleId) const {
    const host::MutexLock lock(mutex_);
    const auto found = handles_.find(handleId);
    if (found == handles_.end()) {
        host::Fail(ENOENT, fmt::format("memory handle {}", handleId));
    }
    std::vector<SiteUse> sites;
    for (const auto &[site, use] : found->second.sites) {
        sites.push_back({site, use.blockNum, use.bytes});
    }
    std::stable_sort(sites.begin(), sites.end(),
                     [](const SiteUse &left, const SiteUse &right) { return left.bytes > right.bytes; });
    return sites;
}

std::optional<BlockInfo> Memory::BlockAt(uint64_t address) const {
    const host::MutexLock lock(mutex_);
    auto found = blocks_.upper_bound(address);
    if (found == blocks_.begin()) {
        return {};
    }
    --found;
    if (address - found->first >= std::max<uint64_t>(found->second.bytes, 1)) {
        return {};
    }
    return InfoOf(found->first, found->second);
}

uint64_t Memory::SetMark() {
    const host::MutexLock lock(mutex_);
    return mark_ = nextNumber_;
}

std::vector<BlockInfo> Memory::BlocksSinceMark() const {
    const host::MutexLock lock(mutex_);
    if (mark_ == 0) {
        host::Fail(ENODATA, "no mark was set");
    }
    std::vector<BlockInfo> infos;
    for (const auto &[address, block] : blocks_) {
        if (block.number >= mark_) {
            infos.push_back(InfoOf(address, block));
        }
    }
    return infos;
}

} // namespace agent
