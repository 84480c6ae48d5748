// The master's configuration file. master.conf, which is an example, says what may be in it.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "host/clock/rules.h"
#include "tarn_sysdiag/types/master.h"

namespace master {

struct Thresholds {
    uint32_t over = 0;
    uint32_t recover = 0;
    uint32_t seconds = 0; // of CPU only

    bool operator==(const Thresholds &) const = default;
};

// Whose thresholds, and a variant.
using Names = std::pair<std::string, std::string>;
using Address = std::array<uint32_t, 3>;

struct Physical {
    std::string name;
    uint32_t type = 0;
    uint32_t number = 0;
};

struct AutoUpdate {
    bool enabled = false;
    uint32_t periodHours = 0;
    uint32_t hour = 0;
};

struct ProcessConfig {
    std::string text;
    uint32_t instances = 0;
    uint32_t restarts = 0;
    uint32_t timeoutSeconds = 0;
};

struct Measurement {
    Tarn_sys_diag_DimTimeCfg times{};
    uint32_t mode = 0;
};

struct Config {
    std::optional<host::Zone> zone;
    std::optional<host::DstRule> dst;
    std::map<Names, Thresholds> cpuOverload;
    std::map<Names, Thresholds> memoryOverload;
    std::map<Address, Physical> physical;
    std::optional<AutoUpdate> autoUpdate;
    std::optional<ProcessConfig> process;
    std::optional<Measurement> measurement;
};

// Throws std::runtime_error with "file:line: what is wrong, expected what".
Config LoadConfig(const std::filesystem::path &file);
Config ParseConfig(std::istream &text, const std::string &name);

// Throws EINVAL unless they are shares of which the second is not above the first.
void CheckThresholds(const Thresholds &thresholds);

} // namespace master
