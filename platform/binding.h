// The lazy binding of one compilation unit to the platform's log and memory functions. They are looked up by name in
// the process at first use, so that the library links against neither service and runs without them.
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "tarn_sysdiag/platform/osal.h"

namespace platform {

constexpr uint32_t kModuleId = 12;
constexpr uint32_t kLogLevel = 2;

// errno values, on the wire between the library and its callers
constexpr uint32_t kNoMemory = 12;
constexpr uint32_t kInvalid = 22;

using LogWriteFn = decltype(&XRT_OsalLogWrite);
using AllocFn = decltype(&XRT_OsalMemCacheAlloc);
using FreeFn = decltype(&XRT_OsalMemFree);
using UseFlagFn = decltype(&XRT_OsalMemUseFlagGet);

inline void *MemAllocDefault(uint32_t size, uint32_t, const char *) {
    return malloc(size);
}

inline void MemFreeDefault(void *block, uint32_t, const char *) {
    free(block);
}

template <class Fn>
Fn LookUp(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

class Binding {
public:
    // Non-zero: every multi-byte scalar on the wire is byte-reversed. It is atomic so that no compiler may conclude
    // from the library alone, which only ever clears it, that the reversed branch is dead.
    bool Swapped() const { return swap_.load(std::memory_order_relaxed) != 0; }
    void SetSwapped(bool swapped) { swap_.store(swapped ? 1 : 0, std::memory_order_relaxed); }

    // Runs the memory resolution if needed. Every codec that allocates or frees calls it first.
    void EnsureMemBound() {
        if (memDone_.load(std::memory_order_acquire) == 0) {
            BindMemory();
        }
    }

    void *Alloc(uint32_t size, const char *tag) { return alloc_(size, kModuleId, tag); }
    void Free(void *block, const char *tag) { free_(block, kModuleId, tag); }

    // Writes a log record, or nothing where the platform has no log. The site's line is the caller's to give.
    template <class... Args>
    [[gnu::cold, gnu::noinline]] void Log(uint32_t error, uint32_t line, const char *function, const char *format,
                                          Args... args) {
        EnsureLogBound();
        if (logWrite_ != nullptr) {
            logWrite_(&module_, kLogLevel, error, "", line, function, format, args...);
        }
    }

private:
    void EnsureLogBound() {
        if (logDone_.load(std::memory_order_acquire) == 0) {
            BindLog();
        }
    }

    // The done flags are set last: whoever reads 1 without the lock must find the pointers they publish.
    [[gnu::cold, gnu::noinline]] void BindLog() {
        pthread_mutex_lock(&logMutex_);
        if (logDone_.load(std::memory_order_relaxed) == 0) {
            logWrite_ = LookUp<LogWriteFn>("XRT_OsalLogWrite");
            logDone_.store(1, std::memory_order_release);
        }
        pthread_mutex_unlock(&logMutex_);
    }

    [[gnu::cold, gnu::noinline]] void BindMemory() {
        pthread_mutex_lock(&memMutex_);
        if (memDone_.load(std::memory_order_relaxed) == 0) {
            SetSwapped(false);
            const auto useFlag = LookUp<UseFlagFn>("XRT_OsalMemUseFlagGet");
            if (useFlag != nullptr && useFlag(kModuleId) == 1) {
                alloc_ = LookUp<AllocFn>("XRT_OsalMemCacheAlloc");
                free_ = LookUp<FreeFn>("XRT_OsalMemFree");
            }
            if (alloc_ == nullptr || free_ == nullptr) { // never a mixed pair
                alloc_ = MemAllocDefault;
                free_ = MemFreeDefault;
            }
            memDone_.store(1, std::memory_order_release);
        }
        pthread_mutex_unlock(&memMutex_);
    }

    pthread_mutex_t logMutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<uint32_t> logDone_ = 0;
    LogWriteFn logWrite_ = nullptr;
    pthread_mutex_t memMutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<uint32_t> memDone_ = 0;
    AllocFn alloc_ = MemAllocDefault;
    FreeFn free_ = MemFreeDefault;
    std::atomic<uint32_t> swap_ = 0;
    XrtLogModule module_ = {"VELTO", "VELTO_HERON_SERIAL", 0x00006200};
};

} // namespace platform

// The state of one compilation unit: `Unit`, which the codec templates take, so that each unit has instances of its
// own and shares nothing. The byte-swap flag is the only thing touched at load.
#define TARN_UNIT()                                                                                                    \
    namespace {                                                                                                        \
    struct Unit {                                                                                                      \
        static constinit platform::Binding binding;                                                                    \
    };                                                                                                                 \
    constinit platform::Binding Unit::binding;                                                                         \
    [[gnu::constructor]] void ClearSwapFlag() {                                                                        \
        Unit::binding.SetSwapped(false);                                                                               \
    }                                                                                                                  \
    }
