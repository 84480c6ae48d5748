#include "tests/codec/platform.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "tarn_sysdiag/platform/osal.h"
#include "tarn_sysdiag/platform/securec.h"

#ifdef TEST_MALLOC
// The linker leads the program's calls of malloc and free to the functions below, and these to the C library's.
extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);
#define CLIB(function) __real_##function
const bool kHasTags = false;
#else
#define CLIB(function) function
const bool kHasTags = true;
#endif
#ifdef TEST_OPTIMISED_COPY
const bool kHasOptimisedCopy = true;
#else
const bool kHasOptimisedCopy = false;
#endif

void Trace::Clear() {
    log.clear();
    allocations.clear();
    releases.clear();
    failAt = std::numeric_limits<size_t>::max();
    copiesChecked = copiesOptimised = 0;
}

void *Trace::Alloc(uint32_t size, const char *tag) {
    allocations.push_back({tag, size});
    if (allocations.size() - 1 == failAt) {
        return nullptr;
    }
    void *const block = CLIB(malloc)(size);
    memset(block, 0xA5, size); // new memory is not zero
    live[block] = size;
    return block;
}

void Trace::Free(void *block, const char *tag) {
    releases.push_back(tag);
    if (block == nullptr) {
        return;
    }
    if (live.erase(block) == 0) {
        misuse.push_back(std::string("release of a block that is not live, by ") + tag);
        return;
    }
    CLIB(free)(block);
}

Trace &PlatformTrace() {
    static Trace trace;
    return trace;
}

namespace {
nlohmann::json ReadArguments(const char *format, va_list list) {
    auto args = nlohmann::json::array();
    for (const char *at = strchr(format, '%'); at != nullptr; at = strchr(at + 2, '%')) {
        switch (at[1]) {
        case 'u':
            args.push_back(va_arg(list, unsigned));
            break;
        case 'd':
            args.push_back(va_arg(list, int));
            break;
        case 's':
            args.push_back(va_arg(list, const char *));
            break;
        default:
            PlatformTrace().misuse.push_back(std::string("log format that no codec has: ") + format);
            return args;
        }
    }
    return args;
}

int Copy(void *to, size_t room, const void *from, size_t count) {
    if (to == nullptr || from == nullptr || count > room) {
        PlatformTrace().misuse.push_back("copy of " + std::to_string(count) + " bytes into " + std::to_string(room));
        return 34;
    }
    memcpy(to, from, count);
    return 0;
}
} // namespace

extern "C" {

void XRT_OsalLogWrite(const XrtLogModule *module, uint32_t level, uint32_t code, const char *file, uint32_t line,
                      const char *function, const char *format, ...) {
    auto &trace = PlatformTrace();
    if (strcmp(module->pcComponent, "VELTO") != 0 || strcmp(module->pcModule, "VELTO_HERON_SERIAL") != 0 ||
        module->uiWord != 0x6200 || level != 2 || strcmp(file, "") != 0 || line == 0) {
        trace.misuse.push_back(std::string("log record of another module, level, file or line, by ") + function);
    }
    if (trace.keepsLog) {
        va_list list;
        va_start(list, format);
        trace.log.push_back({function, code, format, ReadArguments(format, list)});
        va_end(list);
    }
}

int memcpy_s(void *to, size_t room, const void *from, size_t count) {
    ++PlatformTrace().copiesChecked;
    return Copy(to, room, from, count);
}

#ifdef TEST_OPTIMISED_COPY
int memcpy_sOptAsm(void *to, size_t room, const void *from, size_t count) {
    ++PlatformTrace().copiesOptimised;
    return Copy(to, room, from, count);
}
#endif

#ifdef TEST_MALLOC
uint32_t XRT_OsalMemUseFlagGet(uint32_t) {
    return 0;
}

void *__wrap_malloc(size_t size) {
    return PlatformTrace().Alloc(static_cast<uint32_t>(size), "");
}

void __wrap_free(void *block) {
    if (block == nullptr || PlatformTrace().live.count(block) != 0) {
        PlatformTrace().Free(block, "");
    } else {
        __real_free(block); // the C library's own
    }
}
#else
uint32_t XRT_OsalMemUseFlagGet(uint32_t moduleId) {
    return moduleId == 12 ? 1 : 0;
}

void *XRT_OsalMemCacheAlloc(uint32_t size, uint32_t moduleId, const char *tag) {
    if (moduleId != 12) {
        PlatformTrace().misuse.push_back(std::string("allocation for another module, by ") + tag);
    }
    return PlatformTrace().Alloc(size, tag);
}

void XRT_OsalMemFree(void *block, uint32_t moduleId, const char *tag) {
    if (moduleId != 12) {
        PlatformTrace().misuse.push_back(std::string("release for another module, by ") + tag);
    }
    PlatformTrace().Free(block, tag);
}
#endif
}
