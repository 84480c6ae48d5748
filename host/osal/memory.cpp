// The accounted allocator. A block is preceded by a header that names its account, so that freeing needs no look-up and
// counts under the tag of the allocation.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/platform/osal.h"

namespace host {
namespace {

class Counters {
public:
    void Add(uint64_t bytes) {
        liveBlocks_.fetch_add(1, std::memory_order_relaxed);
        allocations_.fetch_add(1, std::memory_order_relaxed);
        const uint64_t now = liveBytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes;
        uint64_t peak = peakBytes_.load(std::memory_order_relaxed);
        while (peak < now && !peakBytes_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
        }
    }

    void Remove(uint64_t bytes) {
        liveBlocks_.fetch_sub(1, std::memory_order_relaxed);
        liveBytes_.fetch_sub(bytes, std::memory_order_relaxed);
    }

    void Read(MemoryUse &use) const {
        use.liveBlocks = liveBlocks_.load(std::memory_order_relaxed);
        use.liveBytes = liveBytes_.load(std::memory_order_relaxed);
        use.peakBytes = peakBytes_.load(std::memory_order_relaxed);
        use.allocations = allocations_.load(std::memory_order_relaxed);
    }

private:
    std::atomic<uint64_t> liveBlocks_ = 0;
    std::atomic<uint64_t> liveBytes_ = 0;
    std::atomic<uint64_t> peakBytes_ = 0;
    std::atomic<uint64_t> allocations_ = 0;
};

struct Account {
    explicit Account(std::string_view name) : tag(name) {}
    const std::string tag;
    Account *next = nullptr; // in its bucket
    Counters counters;
};

// A hash table that only grows: accounts are found without a lock, entered at the head of their bucket, and never
// removed, so a header may point to one for good.
constinit std::array<std::atomic<Account *>, 1024> buckets = {};
constinit Counters total;

Account *Find(Account *first, const Account *end, std::string_view tag) {
    for (Account *account = first; account != end; account = account->next) {
        if (account->tag == tag) {
            return account;
        }
    }
    return nullptr;
}

// Null when there is no memory for a new account.
Account *AccountOf(std::string_view tag) {
    std::atomic<Account *> &bucket = buckets[std::hash<std::string_view>()(tag) % buckets.size()];
    Account *head = bucket.load(std::memory_order_acquire);
    if (Account *const found = Find(head, nullptr, tag)) {
        return found;
    }
    auto *const account = new (std::nothrow) Account(tag);
    if (account == nullptr) {
        return nullptr;
    }
    account->next = head;
    while (
        !bucket.compare_exchange_weak(account->next, account, std::memory_order_release, std::memory_order_acquire)) {
        if (Account *const found = Find(account->next, head, tag)) { // another thread was faster
            delete account;
            return found;
        }
        head = account->next;
    }
    return account;
}

constexpr uint32_t kLive = 0x4D656D21;
constexpr uint32_t kFreed = 0x46726565;

struct alignas(std::max_align_t) Header {
    Account *account;
    uint32_t size;
    uint32_t state; // kLive, or the block is not this allocator's to free
};

// What this thread may still allocate.
constinit thread_local uint64_t budget = UINT64_MAX;

const char *NameOf(const char *tag) {
    return tag == nullptr ? "(no tag)" : tag;
}

} // namespace

AllocationBudget::AllocationBudget(uint64_t bytes) : outer_(budget) {
    budget = bytes;
}

AllocationBudget::~AllocationBudget() {
    budget = outer_;
}

std::vector<TagUse> MemoryByTag() {
    std::vector<TagUse> uses;
    for (const std::atomic<Account *> &bucket : buckets) {
        for (const Account *account = bucket.load(std::memory_order_acquire); account != nullptr;
             account = account->next) {
            TagUse &use = uses.emplace_back();
            use.tag = account->tag;
            account->counters.Read(use);
        }
    }
    std::sort(uses.begin(), uses.end(), [](const TagUse &left, const TagUse &right) { return left.tag < right.tag; });
    return uses;
}

MemoryUse MemoryTotal() {
    MemoryUse use;
    total.Read(use);
    return use;
}

} // namespace host

uint32_t XRT_OsalMemUseFlagGet(uint32_t) {
    return 1;
}

void *XRT_OsalMemCacheAlloc(uint32_t uiSize, uint32_t, const char *pcTag) {
    const uint64_t size = uint64_t{uiSize} + sizeof(host::Header);
    if (size > host::budget) {
        return nullptr;
    }
    host::Account *const account = host::AccountOf(host::NameOf(pcTag));
    auto *const header = account == nullptr || size > SIZE_MAX
                             ? nullptr
                             : static_cast<host::Header *>(malloc(static_cast<size_t>(size)));
    if (header == nullptr) {
        return nullptr;
    }
    *header = {account, uiSize, host::kLive};
    host::budget -= host::budget == UINT64_MAX ? 0 : size;
    account->counters.Add(uiSize);
    host::total.Add(uiSize);
    return header + 1;
}

void XRT_OsalMemFree(void *pBlock, uint32_t, const char *pcTag) {
    if (pBlock == nullptr) {
        return;
    }
    host::Header *const header = static_cast<host::Header *>(pBlock) - 1;
    if (header->state != host::kLive) {
        host::Log().critical("XRT_OsalMemFree: {} from {} is not a live block of XRT_OsalMemCacheAlloc", pBlock,
                             host::NameOf(pcTag));
        abort();
    }
    header->state = host::kFreed;
    header->account->counters.Remove(header->size);
    host::total.Remove(header->size);
    free(header);
}
