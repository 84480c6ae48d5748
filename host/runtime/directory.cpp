#include "host/runtime/directory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

namespace host {

std::filesystem::path DefaultRunDir() {
    const std::filesystem::path system = "/run/tarn";
    if (const char *const named = secure_getenv("TARN_RUN_DIR"); named != nullptr && named[0] != 0) {
        return named;
    }
    std::error_code ignored;
    const char *const user = secure_getenv("XDG_RUNTIME_DIR");
    if (geteuid() == 0 || user == nullptr || user[0] == 0 || std::filesystem::is_directory(system, ignored)) {
        return system;
    }
    return std::filesystem::path(user) / "tarn";
}

Directory::Directory(std::filesystem::path runDir) : runDir_(runDir.empty() ? DefaultRunDir() : std::move(runDir)) {}

std::filesystem::path Directory::Socket(std::string_view service, uint32_t pid) const {
    if (service == "TarnSysdiagAgent") {
        return runDir_ / fmt::format("agent-{}.sock", pid == 0 ? static_cast<uint32_t>(getpid()) : pid);
    }
    return runDir_ / fmt::format("{}.sock", service);
}

} // namespace host
