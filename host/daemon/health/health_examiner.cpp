#include "host/daemon/health/health_examiner.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sstream>
#include <utility>

#include <fmt/format.h>

#include "host/daemon/health/resource_levels.h"
#include "host/daemon/memory/memory_use.h"
#include "host/daemon/sampling/pressure.h"
#include "host/meaning/choices.h"
#include "host/osal/error.h"

namespace tarnd {

namespace {

namespace health_level = host::meaning::health_level;
namespace system_health_item = host::meaning::system_health_item;
namespace system_health_level = host::meaning::system_health_level;

std::string Percent(uint32_t permille) {
    return fmt::format("{}.{} %", permille / 10, permille % 10);
}

// Bad is what lies beyond the middle between the limit and the whole.
uint32_t LevelOfShare(uint32_t permille, uint32_t limit) {
    return permille < limit                        ? health_level::kGood
           : permille < limit + (1000 - limit) / 2 ? health_level::kDegraded
                                                   : health_level::kBad;
}

double LoadOf(const host::procfs::Procfs &proc) {
    constexpr const char *kFile = "loadavg";
    std::istringstream text(proc.Read(kFile));
    double load = 0;
    if (!(text >> load)) {
        host::Fail(EIO, proc.Path(kFile));
    }
    return load;
}

} // namespace

// What is kept for root is neither free nor used.
DiskUse DiskUseOf(const struct statvfs &status) {
    const auto used = [](uint64_t free, uint64_t all) {
        return all == 0 ? 0 : static_cast<uint32_t>(1000 - std::min<uint64_t>(free * 1000 / all, 1000));
    };
    return {used(status.f_bavail, status.f_blocks - (status.f_bfree - status.f_bavail)),
            used(status.f_favail, status.f_files - (status.f_ffree - status.f_favail))};
}

class HealthExaminer::Examination {
public:
    Examination(const HealthExaminer &of, uint8_t function) : of_(of), function_(function) {}

    std::vector<HealthItem> Run() {
        Look(system_health_item::kCpu, [&](const std::string &name, uint32_t limit) { AddCpu(name, limit); });
        LookAtPressure(system_health_item::kCpuPressure, "cpu");
        Look(system_health_item::kMemory, [&](const std::string &name, uint32_t limit) {
            AddShare(name, UsedPermille(of_.sampler_.Latest()->system.memory), limit, "of the memory in use");
        });
        LookAtPressure(system_health_item::kMemoryPressure, "memory");
        LookAtPressure(system_health_item::kIoPressure, "io");
        for (const std::string &directory : of_.directories_) { // those that the daemon itself writes to
            Look(
                system_health_item::kDisk,
                [&](const std::string &name, uint32_t limit) { AddDisk(name, directory, limit); }, " " + directory);
        }
        Look(system_health_item::kDescriptors, [&](const std::string &name, uint32_t limit) {
            AddShare(name, DescriptorUsePermille(of_.proc_), limit, "of the files that the system may have open");
        });
        Look(system_health_item::kLoad, [&](const std::string &name, uint32_t limit) { AddLoad(name, limit); });
        Look(system_health_item::kAgents, [&](const std::string &, uint32_t) { AddAgents(); });
        return std::move(items_);
    }

private:
    // What can't be told is an item that says why.
    void Look(const host::meaning::Choice &item,
              const std::function<void(const std::string &name, uint32_t limit)> &look,
              const std::string &ofItem = "") {
        const auto function = static_cast<uint8_t>(item);
        if (function_ != 0 && function_ != function) {
            return;
        }
        const std::string name = std::string(item.name) + ofItem;
        if (!of_.settings_.IsOn(function)) {
            Add(system_health_level::kUnknown, name, "switched off");
            return;
        }
        try {
            look(name, of_.settings_.LimitOf(function));
        } catch (const std::system_error &error) {
            Add(system_health_level::kUnknown, name, error.what());
        }
    }

    void Add(uint32_t level, const std::string &name, const std::string &text) {
        items_.push_back({level, name, "system", text, of_.clocks_.WallNow()});
    }

    void AddShare(const std::string &name, uint32_t permille, uint32_t limit, const std::string &ofWhat) {
        Add(LevelOfShare(permille, limit), name,
            fmt::format("{} {}, limit {}", Percent(permille), ofWhat, Percent(limit)));
    }

    void LookAtPressure(const host::meaning::Choice &item, const std::string &resource) {
        Look(item, [&](const std::string &name, uint32_t limit) {
            AddShare(name, ReadPressure(of_.proc_, resource), limit, "of the last 10 s some task waited");
        });
    }

    // What was measured over less says little of that time.
    void AddCpu(const std::string &name, uint32_t limit) {
        constexpr std::chrono::seconds kInterval{10};
        const CpuUse use = CpuUseOver(of_.sampler_, kInterval);
        if (use.over < kInterval) {
            const double seconds = std::chrono::duration<double>(use.over).count();
            Add(system_health_level::kUnknown, name,
                fmt::format("{:.1f} s of {} s have been sampled so far", seconds, kInterval.count()));
            return;
        }
        AddShare(name, use.permille, limit, "of all CPUs' time in the last 10 s");
    }

    void AddDisk(const std::string &name, const std::string &directory, uint32_t limit) {
        struct statvfs status {};
        if (statvfs(directory.c_str(), &status) != 0) {
            host::Fail(errno, directory);
        }
        const auto [space, files] = DiskUseOf(status);
        AddShare(name, std::max(space, files), limit,
                 files > space ? "of the number of files in use"
                               : fmt::format("of the space in use, {} MiB free",
                                             status.f_bavail * status.f_frsize / (1024 * 1024)));
    }

    void AddLoad(const std::string &name, uint32_t limit) {
        const double load = LoadOf(of_.proc_);
        const auto perCpu =
            static_cast<uint32_t>(std::lround(load * 1000 / static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN))));
        const uint32_t level = perCpu < limit       ? health_level::kGood
                               : perCpu / 2 < limit ? health_level::kDegraded
                                                    : health_level::kBad;
        Add(level, name,
            fmt::format("{:.2f} in the last minute, {:.2f} for each CPU, limit {:.2f}", load, perCpu / 1000.0,
                        limit / 1000.0));
    }

    void AddAgents() {
        for (const AgentHealth &agent : of_.probe_.Health()) {
            const uint32_t level = agent.answers       ? agent.worstLevel
                                   : agent.hasAnswered ? uint32_t{health_level::kBad}
                                                       : uint32_t{system_health_level::kUnknown};
            const char *const silence = agent.hasAnswered ? "does not answer: " : "has never answered: ";
            const std::string text = !agent.answers            ? silence + agent.complaint
                                     : agent.complaint.empty() ? fmt::format("answered after {} ms", agent.answerMs)
                                                               : agent.complaint;
            items_.push_back({level, fmt::format("agent of process {}", agent.pid), agent.name, text, agent.lookedAt});
        }
    }

    const HealthExaminer &of_;
    const uint8_t function_; // 0: all
    std::vector<HealthItem> items_;
};

std::vector<HealthItem> HealthExaminer::Examine(uint8_t function) const {
    return Examination(*this, function).Run();
}

} // namespace tarnd
