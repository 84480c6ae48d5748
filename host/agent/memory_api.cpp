// The C interface to the application's memory.
#include <dlfcn.h>

#include <array>
#include <cerrno>
#include <new>

#include "host/agent/agent.h"
#include "host/agent/stack.h"
#include "host/osal/attempt.h"
#include "tarn_sysdiag/agent.h"

namespace {

// Where the application allocates: the functions above that of the C interface.
[[gnu::always_inline]] inline agent::CallSite SiteOfCaller() {
    std::array<uint64_t, 32> addresses;
    const size_t count = agent::CallStack(addresses);
    return {addresses.begin(), addresses.begin() + count};
}

std::string OwnerAt(void *address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

} // namespace

uint32_t TarnAgent_CreatePartition(const char *name, uint64_t bytes, uint32_t blockBytes, uint32_t *id) {
    uint32_t result = EINVAL, created = 0;
    const uint32_t thrown = host::Attempt(
        __func__, [&] { result = agent::Agent::OfProcess().memory.CreatePartition(name, bytes, blockBytes, created); });
    if (id != nullptr) {
        *id = created;
    }
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_DestroyPartition(uint32_t id) {
    return agent::Agent::OfProcess().memory.DestroyPartition(id);
}

uint32_t TarnAgent_OpenMemHandle(uint32_t partitionId, const char *name, uint32_t *id) {
    void *const caller = __builtin_return_address(0);
    uint32_t result = EINVAL, opened = 0;
    const uint32_t thrown = host::Attempt(__func__, [&] {
        result = agent::Agent::OfProcess().memory.OpenHandle(partitionId, name, OwnerAt(caller), opened);
    });
    if (id != nullptr) {
        *id = opened;
    }
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_CloseMemHandle(uint32_t id) {
    return agent::Agent::OfProcess().memory.CloseHandle(id);
}

void *TarnAgent_Alloc(uint32_t handleId, size_t bytes) {
    try {
        return agent::Agent::OfProcess().memory.Allocate(handleId, bytes, SiteOfCaller());
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void TarnAgent_Free(void *start) {
    host::Attempt(__func__, [&] { agent::Agent::OfProcess().memory.Free(start); });
}

uint32_t TarnAgent_AccountAlloc(uint32_t handleId, const void *start, size_t bytes) {
    try {
        return agent::Agent::OfProcess().memory.Account(handleId, start, bytes, SiteOfCaller());
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

uint32_t TarnAgent_AccountFree(const void *start) {
    return agent::Agent::OfProcess().memory.Unaccount(start);
}
