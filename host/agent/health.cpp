#include "host/agent/health.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include "host/agent/dead_loops.h"
#include "host/agent/faults.h"
#include "host/agent/memory.h"
#include "host/agent/methods.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/agent.h"

namespace agent {

namespace {

constexpr uint8_t kFirstOfApplication = 64;
constexpr size_t kTextRoom = sizeof(Tarn_sys_diag_SysHealthInfo::acValue4);

std::mutex nameMutex;
std::string healthName;

uint8_t LevelOf(uint64_t value, uint32_t limit) {
    if (value < limit) {
        return TARN_AGENT_HEALTH_GOOD;
    }
    return value < uint64_t{2} * limit ? TARN_AGENT_HEALTH_DEGRADED : TARN_AGENT_HEALTH_BAD;
}

Health::Finding Found(uint64_t value, uint32_t limit, const char *unit) {
    return {LevelOf(value, limit), fmt::format("{} {}, limit {}", value, unit, limit)};
}

Health::Finding Threads(uint32_t limit) {
    return Found(host::procfs::Procfs().ReadProcess(static_cast<uint32_t>(getpid())).threadNum, limit, "threads");
}

Health::Finding Descriptors(uint32_t limit) {
    const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    const auto open = static_cast<uint64_t>(std::distance(begin(entries), end(entries)));
    rlimit most{};
    getrlimit(RLIMIT_NOFILE, &most);
    const uint64_t share = open * 1000 / std::max<uint64_t>(most.rlim_cur, 1);
    return {LevelOf(share, limit),
            fmt::format("{} of {} descriptors are open, {} permille, limit {}", open, most.rlim_cur, share, limit)};
}

Health::Finding ResidentMemory(uint32_t limit) {
    const std::string status = host::procfs::Procfs().Read("self/status");
    return Found(host::procfs::FieldOf(status, "VmRSS") / 1024, limit, "MiB resident");
}

std::string LocalTime() {
    const time_t now = time(nullptr);
    tm local{};
    char text[15];
    localtime_r(&now, &local);
    return {text, strftime(text, sizeof text, "%Y%m%d%H%M%S", &local)};
}

} // namespace

Health::Health() {
    AddOwn();
}

void Health::AddOwn() {
    items_[1] = {"threads", 512, Threads};
    items_[2] = {"descriptors", 800, Descriptors};
    items_[3] = {"memory", 1024, ResidentMemory};
    items_[4] = {"dead loops", 1,
                 [](uint32_t limit) { return Found(TheDeadLoops().LoopNum(), limit, "threads in a dead loop"); }};
    items_[5] = {"memory damage", 1,
                 [](uint32_t limit) { return Found(TheMemory().DamageNum(), limit, "damages found"); }};
    items_[6] = {"faults", 1, [](uint32_t limit) { return Found(FaultNum(), limit, "faults recorded"); }};
}

uint32_t Health::Add(uint8_t function, const char *name, uint32_t limit, Check check) {
    if (function < kFirstOfApplication || name == nullptr || *name == 0 ||
        strlen(name) >= sizeof(Tarn_sys_diag_SysHealthInfo::acValue1)) {
        return EINVAL;
    }
    const std::lock_guard lock(mutex_);
    return items_.try_emplace(function, Item{name, limit, std::move(check)}).second ? 0 : EEXIST;
}

void Health::SetAll(bool on) {
    const std::lock_guard lock(mutex_);
    on_ = on;
}

void Health::Set(uint8_t function, bool on, uint32_t limit) {
    const std::lock_guard lock(mutex_);
    if (function != 0 && items_.count(function) == 0) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("health item {}", function));
    }
    for (auto &[id, item] : items_) {
        if (function == 0 || function == id) {
            item.on = on;
            item.limit = limit == 0 ? item.limit : limit;
        }
    }
}

bool Health::IsOn() const {
    const std::lock_guard lock(mutex_);
    return on_;
}

// The application's checks run without the lock: they may register and set what they like.
std::vector<Health::Result> Health::Look() const {
    std::map<uint8_t, Item> items;
    {
        const std::lock_guard lock(mutex_);
        items = on_ ? items_ : items;
    }
    std::vector<Result> results;
    for (const auto &[id, item] : items) {
        if (item.on) {
            Finding finding{TARN_AGENT_HEALTH_BAD, "the check failed"};
            host::Run(item.name.c_str(), [&, &one = item] { finding = one.check(one.limit); });
            results.push_back({std::move(finding), item.name});
        }
    }
    return results;
}

Health &TheHealth() {
    static Health &health = *new Health; // the application may call after the end of main
    return health;
}

void SetHealthName(const std::string &agentName) {
    const std::lock_guard lock(nameMutex);
    healthName = agentName;
}

uint32_t TarnPadsGetProcSystemHealthInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_PadsSystemHealthResult>(__func__, replyCtx, [](auto &reply) {
        std::vector<Tarn_sys_diag_SysHealthInfo> infos;
        for (const Health::Result &result : TheHealth().Look()) {
            reply.uiValue1 = std::max<uint32_t>(reply.uiValue1, result.level);
            Tarn_sys_diag_SysHealthInfo &info = infos.emplace_back();
            info.ucValue1 = result.level;
            host::CopyText(info.acValue1, result.name);
            host::CopyText(info.acValue3, LocalTime());
            host::CopyText(info.acValue4, result.text);
            const std::lock_guard lock(nameMutex);
            host::CopyText(info.acValue2, healthName);
        }
        reply.uiValue2 = TheHealth().IsOn() ? 1 : 0;
        reply.pstHealthInfo = reply.Keep(std::move(infos), reply.uiHealthInfoNum);
    });
}

uint32_t TarnPadsSetProcPadsGlobalSwitch(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(__func__, [&] {
        if (request->ucGlobalSwitch > 1) {
            throw host::BadValue("ucGlobalSwitch", request->ucGlobalSwitch, "0 or 1");
        }
        TheHealth().SetAll(request->ucGlobalSwitch == 1);
    });
}

uint32_t TarnPadsSetProcPadsAppFunSwitch(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(__func__, [&] {
        if (request->ucSwitch > 1) {
            throw host::BadValue("ucSwitch", request->ucSwitch, "0 or 1");
        }
        TheHealth().Set(request->ucFunction, request->ucSwitch == 1, request->uiValue);
    });
}

} // namespace agent

uint32_t TarnAgent_AddHealthItem(uint8_t function, const char *name, uint32_t limit, TarnAgentHealthCheck check,
                                 void *userData) {
    if (check == nullptr) {
        return EINVAL;
    }
    const auto finding = [check, userData](uint32_t now) {
        char text[agent::kTextRoom] = "";
        const uint32_t level = check(now, text, sizeof text, userData);
        return agent::Health::Finding{static_cast<uint8_t>(std::min<uint32_t>(level, TARN_AGENT_HEALTH_BAD)),
                                      std::string(text, strnlen(text, sizeof text))};
    };
    uint32_t result = 0;
    const uint32_t thrown =
        host::Run(__func__, [&] { result = agent::TheHealth().Add(function, name, limit, finding); });
    return thrown != 0 ? thrown : result;
}
