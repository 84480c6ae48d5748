// For the agent's units, before all that includes platform/binding.h: they use the OS layer that is linked into the
// agent, whatever of those names the application's process has.
#pragma once

#include "tarn_sysdiag/platform/osal.h"

namespace platform {

template <class Fn>
Fn LookUp(const char *name);

template <>
inline auto LookUp<decltype(&XRT_OsalLogWrite)>(const char *) -> decltype(&XRT_OsalLogWrite) {
    return &XRT_OsalLogWrite;
}
template <>
inline auto LookUp<decltype(&XRT_OsalMemUseFlagGet)>(const char *) -> decltype(&XRT_OsalMemUseFlagGet) {
    return &XRT_OsalMemUseFlagGet;
}
template <>
inline auto LookUp<decltype(&XRT_OsalMemCacheAlloc)>(const char *) -> decltype(&XRT_OsalMemCacheAlloc) {
    return &XRT_OsalMemCacheAlloc;
}
template <>
inline auto LookUp<decltype(&XRT_OsalMemFree)>(const char *) -> decltype(&XRT_OsalMemFree) {
    return &XRT_OsalMemFree;
}

} // namespace platform

#include "platform/binding.h"
