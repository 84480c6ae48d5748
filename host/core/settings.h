// What the kernel does with cores, and what it did before this program was installed for them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace core {

struct KernelSettings {
    std::string pattern;    // kernel.core_pattern
    uint32_t pipeLimit = 0; // kernel.core_pipe_limit: cores at a time whose processes wait for the program; 0: none
};

class Settings {
public:
    // Where the kernel's settings are, the directory of what was before, and the file that sets them at the next start.
    // All throw std::system_error.
    struct Places {
        std::filesystem::path kernel = "/proc/sys/kernel";
        std::filesystem::path state = "/var/lib/tarn-core";
        std::filesystem::path start = "/etc/sysctl.d/60-tarn-core.conf";
    };
    explicit Settings(Places places) : places_(std::move(places)) {}

    KernelSettings Now() const;
    // None where the program is not installed.
    std::optional<KernelSettings> Before() const;
    bool UsesPid() const;

    // From now on cores come to this program, which is named by its path. False when they do already.
    bool Install(const std::filesystem::path &program) const;
    // As it was before. False when it is; what others have set since stays.
    bool Remove() const;

private:
    bool IsOurs(const std::string &pattern) const;
    void Set(const KernelSettings &settings) const;

    const Places places_;
};

} // namespace core
