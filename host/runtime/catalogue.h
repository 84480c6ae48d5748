// Every method of the four services, from the library's method lists.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace host {

struct MethodInfo {
    std::string_view service;
    std::string_view method;
    uint32_t index;            // in the service's interface table, from 1
    std::string_view request;  // type name, without the Tarn_sys_diag_ prefix
    std::string_view response; // empty for a method without reply
    uint32_t requestHash;
    uint32_t responseHash; // 0 for a method without reply
    uint32_t requestBytes; // that no request has more of, also of a newer client; 0 where its type has no such bound

    constexpr bool Replies() const { return !response.empty(); }
};

// Service by service, each in the order of its interface indices.
std::span<const MethodInfo> Catalogue();

// Null when there is none. A method's name alone finds it too, since no two services share one.
const MethodInfo *FindMethod(std::string_view service, std::string_view method);
const MethodInfo *FindMethod(std::string_view method);

} // namespace host
