// The application's memory as it registers it: partitions, handles that take blocks of them, and where, by whom and for
// what each block was allocated. All that is known of a block lies apart from it, so that damage can't hide itself.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/agent/partition.h"
#include "host/clock/clocks.h"
#include "host/osal/mutex.h"

namespace agent {

using CallSite = std::vector<uint64_t>; // return addresses, the innermost first

// Its innermost function, which is the one that asked for the memory.
std::string SiteText(const CallSite &site);

// What is held, and the most that was.
struct MemoryUse {
    uint32_t blockNum = 0;
    uint32_t peakBlockNum = 0;
    uint64_t bytes = 0;
    uint64_t peakBytes = 0;

    void Add(uint32_t blocks, uint64_t more);
    void Remove(uint32_t blocks, uint64_t less);
};

struct HandleInfo {
    uint32_t id = 0;
    std::string name;
    uint32_t partitionId = 0;
    uint32_t blockBytes = 0; // 0: the application allocates by itself
    std::string owner;       // the file of the code that opened it
    MemoryUse use;           // blocks of the partition
    uint64_t allocNum = 0;
    uint32_t failNum = 0;
    std::set<uint32_t> tids;
};

struct PartitionInfo {
    uint32_t id = 0;
    std::string name;
    uint32_t blockBytes = 0;
    uint64_t totalBytes = 0;
    uint64_t usedBytes = 0;
    uint64_t peakBytes = 0;
    uint64_t maxFreeBytes = 0;
    std::vector<Partition::Class> classes; // by order: runs of 1, 2, 4, ... blocks
};

struct BlockInfo {
    uint64_t number = 0; // of the allocation
    uint64_t address = 0;
    uint64_t bytes = 0;
    uint32_t handleId = 0;
    std::string handleName;
    uint32_t partitionId = 0;
    std::string partitionName;
    uint32_t tid = 0;
    bool threadEnded = false;
    std::chrono::steady_clock::duration age{};
    CallSite site;
};

struct SiteUse {
    CallSite site;
    uint32_t blockNum = 0;
    uint64_t bytes = 0;
};

// A guard that was found overwritten, or a free of what is no block.
struct Damage {
    std::string when; // local time
    std::string text;
};

class Memory {
public:
    explicit Memory(const host::Clocks &clocks) : clocks_(clocks) {}

    // The application's side; errors are errno values.
    uint32_t CreatePartition(const char *name, uint64_t bytes, uint32_t blockBytes, uint32_t &id);
    uint32_t DestroyPartition(uint32_t id);
    uint32_t OpenHandle(uint32_t partitionId, const char *name, std::string owner, uint32_t &id);
    uint32_t CloseHandle(uint32_t id);
    void *Allocate(uint32_t handleId, size_t bytes, CallSite site);
    void Free(void *start);
    uint32_t Account(uint32_t handleId, const void *start, size_t bytes, CallSite site);
    uint32_t Unaccount(const void *start);

    // Copies of what there is.
    std::vector<PartitionInfo> Partitions() const;          // by id
    std::vector<HandleInfo> Handles() const;                // by id
    std::vector<BlockInfo> Blocks(uint32_t handleId) const; // 0: of all; by address
    std::vector<SiteUse> Sites(uint32_t handleId) const;    // those that hold most first; throws ENOENT
    std::optional<BlockInfo> BlockAt(uint64_t address) const;

    // From the mark on, allocations are told apart from those before. The number of the first of them.
    uint64_t SetMark();
    std::vector<BlockInfo> BlocksSinceMark() const; // throws ENODATA when there is none

    // Looks at every block's guards. The number of blocks newly found to be damaged.
    uint32_t Scan();
    std::vector<Damage> Damages() const; // the newest 64
    uint32_t DamageNum() const;

    // Keeps the blocks whose thread has ended, for Hostages().
    uint32_t DetectHostages();
    std::vector<BlockInfo> Hostages() const;

private:
    // A thread that has allocated.
    struct Owner {
        explicit Owner(uint32_t id) : tid(id) {}

        const uint32_t tid;
        std::atomic<bool> ended = false;
    };
    struct OwnerOfThread;

    struct PartitionState {
        std::string name;
        std::unique_ptr<Partition> memory; // null: the application allocates by itself
        MemoryUse accounted;
        uint32_t handleNum = 0;
    };
    struct HandleState : HandleInfo {
        std::map<CallSite, MemoryUse> sites;
    };
    struct Block {
        uint64_t number;
        uint64_t bytes;
        uint32_t handleId;
        Partition::Run run;
        std::map<CallSite, MemoryUse>::iterator site;
        std::shared_ptr<const Owner> owner;
        std::chrono::steady_clock::time_point since;
        bool damaged = false;
    };
    using BlockMap = std::map<uint64_t, Block>; // by address

    static std::shared_ptr<const Owner> OwnerOfThisThread();
    void Keep(HandleState &handle, uint64_t address, uint64_t bytes, const Partition::Run &run, CallSite site)
        TARN_REQUIRES(mutex_);
    void Forget(BlockMap::iterator found) TARN_REQUIRES(mutex_);
    uint32_t BlocksOf(const HandleState &handle, const Partition::Run &run) const;
    bool CheckGuards(uint64_t address, Block &block) TARN_REQUIRES(mutex_);
    void AddDamage(std::string text) TARN_REQUIRES(mutex_);
    BlockInfo InfoOf(uint64_t address, const Block &block) const TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    mutable host::Mutex mutex_;
    std::map<uint32_t, PartitionState> partitions_ TARN_GUARDED_BY(mutex_);
    std::map<uint32_t, HandleState> handles_ TARN_GUARDED_BY(mutex_);
    BlockMap blocks_ TARN_GUARDED_BY(mutex_);
    uint32_t lastPartition_ TARN_GUARDED_BY(mutex_) = 0;
    uint32_t lastHandle_ TARN_GUARDED_BY(mutex_) = 0;
    uint64_t nextNumber_ TARN_GUARDED_BY(mutex_) = 1;
    uint64_t mark_ TARN_GUARDED_BY(mutex_) = 0; // the number of the first allocation behind it; 0: there is none
    std::deque<Damage> damages_ TARN_GUARDED_BY(mutex_);
    uint32_t damageNum_ TARN_GUARDED_BY(mutex_) = 0;
    std::vector<uint64_t> hostages_ TARN_GUARDED_BY(mutex_); // numbers
};

} // namespace agent
