#include "host/runtime/directory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

namespace host {

namespace {

constexpr char kSystemRunDir[] = "/run/tarn";

std::filesystem::path Named(const char *variable) {
    const char *const value = secure_getenv(variable);
    return value == nullptr ? "" : value;
}

// Empty where the system has none for this user.
std::filesystem::path UserRunDir() {
    const std::filesystem::path parent = Named("XDG_RUNTIME_DIR");
    return parent.empty() ? parent : parent / "tarn";
}

} // namespace

std::filesystem::path DefaultRunDir() {
    if (const std::filesystem::path named = Named("TARN_RUN_DIR"); !named.empty()) {
        return named;
    }
    std::error_code ignored;
    const std::filesystem::path own = UserRunDir();
    return geteuid() == 0 || own.empty() || std::filesystem::is_directory(kSystemRunDir, ignored) ? kSystemRunDir : own;
}

std::filesystem::path UserStateDir() {
    if (std::filesystem::path state = Named("XDG_STATE_HOME"); state.is_absolute()) {
        return state;
    }
    const std::filesystem::path home = Named("HOME");
    return home.is_absolute() ? home / ".local/state" : std::filesystem::path();
}

std::filesystem::path FaultDir(const std::filesystem::path &runDir) {
    if (std::filesystem::path named = Named("TARN_FAULT_DIR"); !named.empty()) {
        return named;
    }
    if (runDir == kSystemRunDir) {
        return "/var/lib/tarn-faults";
    }
    const std::filesystem::path state = UserStateDir();
    return !state.empty() && runDir == UserRunDir() ? state / "tarn-faults" : runDir;
}

Directory::Directory(std::filesystem::path runDir) : runDir_(runDir.empty() ? DefaultRunDir() : std::move(runDir)) {}

std::filesystem::path Directory::Socket(std::string_view service, uint32_t pid) const {
    if (service == "TarnSysdiagAgent") {
        return runDir_ / fmt::format("agent-{}.sock", pid == 0 ? static_cast<uint32_t>(getpid()) : pid);
    }
    return runDir_ / fmt::format("{}.sock", service);
}

} // namespace host
