// The health of the system: what runs short, and which agents are in trouble.
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <set>

#include "host/answer/answer.h"
#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/daemon.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/health/resources.h"
#include "host/daemon/memory/memory_use.h"
#include "host/daemon/sampling/pressure.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/time/local_clock.h"
#include "host/values/agent.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Item = Tarn_sys_diag_SysHealthInfo;

Item MakeItem(uint32_t level, const std::string &name, const std::string &source, const std::string &text,
              std::chrono::system_clock::time_point when = std::chrono::system_clock::now()) {
    const Tarn_sys_diag_Systime time = TheClock().LocalTime(when);
    Item item{};
    item.ucValue1 = static_cast<uint8_t>(level);
    host::CopyText(item.acValue1, name);
    host::CopyText(item.acValue2, source);
    host::CopyText(item.acValue3, fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", time.usYear, time.ucMonth, time.ucDay,
                                              time.ucHour, time.ucMinute, time.ucSecond));
    host::CopyText(item.acValue4, text);
    return item;
}

std::string Percent(uint32_t permille) {
    return fmt::format("{}.{} %", permille / 10, permille % 10);
}

// Bad is what lies beyond the middle between the limit and the whole.
uint32_t LevelOfShare(uint32_t permille, uint32_t limit) {
    return permille < limit                        ? TARN_AGENT_HEALTH_GOOD
           : permille < limit + (1000 - limit) / 2 ? TARN_AGENT_HEALTH_DEGRADED
                                                   : TARN_AGENT_HEALTH_BAD;
}

class Examination {
public:
    explicit Examination(uint8_t function) : function_(function) {}

    std::vector<Item> Run() {
        Look(TARND_HEALTH_CPU, "cpu", [&](uint32_t limit) {
            AddShare("cpu", CpuUsePermille(std::chrono::seconds(10)), limit, "of all CPUs' time in the last 10 s");
        });
        LookAtPressure(TARND_HEALTH_CPU_PRESSURE, "cpu");
        Look(TARND_HEALTH_MEMORY, "memory", [&](uint32_t limit) {
            AddShare("memory", UsedPermille(TheSampler().Latest()->system.memory), limit, "of the memory in use");
        });
        LookAtPressure(TARND_HEALTH_MEMORY_PRESSURE, "memory");
        LookAtPressure(TARND_HEALTH_IO_PRESSURE, "io");
        LookAtDisks();
        Look(TARND_HEALTH_DESCRIPTORS, "descriptors", [&](uint32_t limit) {
            AddShare("descriptors", DescriptorUsePermille(), limit, "of the files that the system may have open");
        });
        Look(TARND_HEALTH_LOAD, "load", [&](uint32_t limit) { AddLoad(limit); });
        Look(TARND_HEALTH_AGENTS, "agents", [&](uint32_t) { AddAgents(); });
        return std::move(items_);
    }

private:
    // What can't be told is an item that says why.
    void Look(uint8_t function, const std::string &name, const std::function<void(uint32_t limit)> &look) {
        if ((function_ != 0 && function_ != function) || !TheHealthSettings().IsOn(function)) {
            return;
        }
        try {
            look(TheHealthSettings().LimitOf(function));
        } catch (const std::system_error &error) {
            items_.push_back(MakeItem(TARND_HEALTH_UNKNOWN, name, "system", error.what()));
        }
    }

    void AddShare(const std::string &name, uint32_t permille, uint32_t limit, const std::string &ofWhat) {
        items_.push_back(MakeItem(LevelOfShare(permille, limit), name, "system",
                                  fmt::format("{} {}, limit {}", Percent(permille), ofWhat, Percent(limit))));
    }

    void LookAtPressure(uint8_t function, const std::string &resource) {
        Look(function, resource + " pressure", [&](uint32_t limit) {
            AddShare(resource + " pressure", ReadPressure(Daemon::Serving().proc, resource), limit,
                     "of the last 10 s some task waited");
        });
    }

    // The directories that the daemon itself writes to.
    void LookAtDisks() {
        std::set<std::string> directories{TheSettings().logDirectory, TheSettings().stateDirectory,
                                          TheSettings().runDirectory};
        directories.erase("");
        for (const std::string &directory : directories) {
            Look(TARND_HEALTH_DISK, "disk " + directory, [&](uint32_t limit) { AddDisk(directory, limit); });
        }
    }

    void AddDisk(const std::string &directory, uint32_t limit) {
        struct statvfs status {};
        if (statvfs(directory.c_str(), &status) != 0) {
            throw std::system_error(errno, std::generic_category(), directory);
        }
        const auto used = [](uint64_t free, uint64_t all) {
            return all == 0 ? 0 : static_cast<uint32_t>(1000 - std::min<uint64_t>(free * 1000 / all, 1000));
        };
        // What is kept for root is neither free nor used, as df sees it.
        const uint64_t usable = status.f_blocks - (status.f_bfree - status.f_bavail);
        const uint32_t space = used(status.f_bavail, usable);
        const uint32_t files = used(status.f_favail, status.f_files - (status.f_ffree - status.f_favail));
        AddShare("disk " + directory, std::max(space, files), limit,
                 files > space ? "of the number of files in use"
                               : fmt::format("of the space in use, {} MiB free",
                                             status.f_bavail * status.f_frsize / (1024 * 1024)));
    }

    void AddLoad(uint32_t limit) {
        double load = 0;
        if (getloadavg(&load, 1) != 1) {
            throw std::system_error(EIO, std::generic_category(), "getloadavg");
        }
        const auto perCpu =
            static_cast<uint32_t>(std::lround(load * 1000 / static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN))));
        const uint32_t level = perCpu < limit       ? TARN_AGENT_HEALTH_GOOD
                               : perCpu / 2 < limit ? TARN_AGENT_HEALTH_DEGRADED
                                                    : TARN_AGENT_HEALTH_BAD;
        items_.push_back(MakeItem(level, "load", "system",
                                  fmt::format("{:.2f} in the last minute, {:.2f} for each CPU, limit {:.2f}", load,
                                              perCpu / 1000.0, limit / 1000.0)));
    }

    void AddAgents() {
        for (const AgentHealth &agent : AgentsHealth()) {
            const uint32_t level = agent.answers ? agent.worstLevel : TARN_AGENT_HEALTH_BAD;
            const std::string text = !agent.answers            ? "does not answer: " + agent.complaint
                                     : agent.complaint.empty() ? fmt::format("answered after {} ms", agent.answerMs)
                                                               : agent.complaint;
            items_.push_back(
                MakeItem(level, fmt::format("agent of process {}", agent.pid), agent.name, text, agent.lookedAt));
        }
    }

    const uint8_t function_; // 0: all
    std::vector<Item> items_;
};

void Examine(uint8_t function, host::Reply<Tarn_sys_diag_PadsSystemHealthResult> &reply) {
    if (function != 0 && (function < TARND_HEALTH_FIRST || function > TARND_HEALTH_LAST)) {
        throw host::BadValue("ucValue", function, fmt::format("0 or {} to {}", TARND_HEALTH_FIRST, TARND_HEALTH_LAST));
    }
    std::vector<Item> items = Examination(function).Run();
    for (const Item &item : items) {
        reply.uiValue1 =
            item.ucValue1 == TARND_HEALTH_UNKNOWN ? reply.uiValue1 : std::max<uint32_t>(reply.uiValue1, item.ucValue1);
    }
    reply.uiValue2 = TheHealthSettings().AllOn();
    reply.pstHealthInfo = reply.Keep(std::move(items), reply.uiHealthInfoNum);
}

} // namespace

} // namespace tarnd

uint32_t TarnPadsGetSystemHealthInfoByTarnd(const Tarn_sys_diag_PadsSystemHealthInput *request, void *replyCtx) {
    if (request->uiValue != 0) {
        return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), request->uiValue,
                            Tarn_sys_diag_None{});
    }
    return host::Answer<Tarn_sys_diag_PadsSystemHealthResult>(
        __func__, replyCtx, [&](auto &reply) { tarnd::Examine(request->ucValue, reply); });
}
