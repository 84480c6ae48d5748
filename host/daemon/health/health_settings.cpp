#include "host/daemon/health/health_settings.h"

#include <fmt/format.h>

#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/values/daemon.h"

namespace tarnd {

namespace {

constexpr char kDocument[] = "health";
constexpr uint32_t kVersion = 1;

bool IsOfDaemon(uint8_t function) {
    return function >= TARND_HEALTH_FIRST;
}

bool IsShare(uint8_t function) {
    return function != TARND_HEALTH_LOAD && function != TARND_HEALTH_AGENTS && function != TARND_HEALTH_CPU_TIME;
}

uint32_t DefaultLimit(uint8_t function) {
    switch (function) {
    case TARND_HEALTH_CPU:
        return 900;
    case TARND_HEALTH_CPU_PRESSURE:
        return 300;
    case TARND_HEALTH_MEMORY:
        return 900;
    case TARND_HEALTH_MEMORY_PRESSURE:
        return 100;
    case TARND_HEALTH_IO_PRESSURE:
        return 300;
    case TARND_HEALTH_DISK:
        return 900;
    case TARND_HEALTH_DESCRIPTORS:
        return 800;
    case TARND_HEALTH_LOAD:
        return 2000;
    case TARND_HEALTH_AGENTS:
        return Courier::kTimeoutMs;
    case TARND_HEALTH_ONE_CPU:
        return 950;
    case TARND_HEALTH_CPU_TIME:
        return 3000;
    default:
        return 0;
    }
}

void CheckSwitch(const char *member, uint8_t value) {
    if (value > 1) {
        throw host::BadValue(member, value, "0 or 1");
    }
}

void Check(uint8_t function, uint32_t limit) {
    if (IsOfDaemon(function) && DefaultLimit(function) == 0) {
        throw host::BadValue(
            "ucFunction", function,
            fmt::format("0 to {} or {} to {}", TARND_HEALTH_FIRST - 1, TARND_HEALTH_FIRST, TARND_HEALTH_LAST));
    }
    if (function == 0 && limit != 0) {
        throw host::BadValue("uiValue", limit, "0, as functions have limits of their own");
    }
    if (IsOfDaemon(function) && IsShare(function) && limit > 1000) {
        throw host::BadValue("uiValue", limit, "a share of at most 1000");
    }
    if (function == TARND_HEALTH_AGENTS && limit > Courier::kTimeoutMs) {
        throw host::BadValue("uiValue", limit, fmt::format("at most {} ms", Courier::kTimeoutMs));
    }
}

} // namespace

HealthSettings::HealthSettings(host::Store &store, AgentLine &line, Courier &courier)
    : store_(store), line_(line), courier_(courier), errand_(courier.Add([this](uint32_t pid) { BringTo(pid); })) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion, [this](const host::Document &content) TARN_REQUIRES(mutex_) {
        Functions functions;
        for (const host::Document &entry : content.ArrayAt("functions")) {
            const auto id = entry.Get<uint8_t>("function");
            functions[id] = {entry.Get<bool>("on"), entry.Get<uint32_t>("limit")};
            Check(id, functions[id].limit);
        }
        allOn_ = content.Get<bool>("on");
        functions_ = std::move(functions);
    });
}

void HealthSettings::Keep(bool allOn, Functions functions) {
    host::Document::Array list;
    for (const auto &[id, function] : functions) {
        list.push_back(host::Document::Object{{"function", id}, {"on", function.on}, {"limit", function.limit}});
    }
    store_.Save(kDocument, kVersion, host::Document::Object{{"on", allOn}, {"functions", list}});
    allOn_ = allOn;
    functions_ = std::move(functions);
    courier_.SendToAll(errand_);
}

void HealthSettings::SwitchAll(uint8_t on) {
    CheckSwitch("ucGlobalSwitch", on);
    const host::MutexLock lock(mutex_);
    Keep(on == 1, functions_);
    host::Log().info("health: {}", on == 1 ? "on" : "off");
}

void HealthSettings::SwitchFunction(const Tarn_sys_diag_PadsAppFunSwitch &request) {
    CheckSwitch("ucSwitch", request.ucSwitch);
    Check(request.ucFunction, request.uiValue);
    const host::MutexLock lock(mutex_);
    Functions functions = functions_;
    if (request.ucFunction == 0) {
        for (unsigned id = TARND_HEALTH_FIRST; id <= TARND_HEALTH_LAST; ++id) {
            functions[static_cast<uint8_t>(id)].on = request.ucSwitch == 1;
        }
        for (auto &[id, function] : functions) {
            function.on = request.ucSwitch == 1;
        }
    }
    Function &function = functions[request.ucFunction];
    function.on = request.ucSwitch == 1;
    function.limit = request.uiValue != 0 ? request.uiValue : function.limit;
    Keep(allOn_, std::move(functions));
    host::Log().info("health function {}: {}, limit {}", request.ucFunction, request.ucSwitch == 1 ? "on" : "off",
                     request.uiValue);
}

bool HealthSettings::AllOn() const {
    const host::MutexLock lock(mutex_);
    return allOn_;
}

bool HealthSettings::IsOn(uint8_t function) const {
    const host::MutexLock lock(mutex_);
    const auto set = functions_.find(function);
    return allOn_ && (set == functions_.end() || set->second.on);
}

uint32_t HealthSettings::LimitOf(uint8_t function) const {
    const host::MutexLock lock(mutex_);
    const auto set = functions_.find(function);
    return set == functions_.end() || set->second.limit == 0 ? DefaultLimit(function) : set->second.limit;
}

std::vector<Tarn_sys_diag_PadsAppFunSwitch> HealthSettings::OfAgents() const {
    const host::MutexLock lock(mutex_);
    std::vector<Tarn_sys_diag_PadsAppFunSwitch> switches; // 0, which stands for all, is the first
    for (const auto &[id, function] : functions_) {
        if (!IsOfDaemon(id)) {
            switches.push_back({id, function.on, function.limit});
        }
    }
    return switches;
}

void HealthSettings::BringTo(uint32_t pid) {
    line_.Tell(TarnSysdiagAgent_TarnPadsSetProcPadsGlobalSwitch_oneway, pid, Tarn_sys_diag_PadsGlobalSwitch{AllOn()});
    for (const Tarn_sys_diag_PadsAppFunSwitch &function : OfAgents()) {
        line_.Tell(TarnSysdiagAgent_TarnPadsSetProcPadsAppFunSwitch_oneway, pid, function);
    }
}

} // namespace tarnd
