#include "host/daemon/health/health_settings.h"

#include <fmt/format.h>

#include "host/meaning/methods.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

namespace system_health_item = host::meaning::system_health_item;

constexpr char kDocument[] = "health";
constexpr uint32_t kVersion = 1;

bool IsOfDaemon(uint32_t item) {
    return item >= system_health_item::kFirst;
}

bool IsShare(uint32_t item) {
    return item != system_health_item::kLoad && item != system_health_item::kAgents &&
           item != system_health_item::kCpuEventTime;
}

uint32_t DefaultLimit(uint32_t item) {
    switch (item) {
    case system_health_item::kCpu:
    case system_health_item::kMemory:
    case system_health_item::kDisk:
        return 900;
    case system_health_item::kCpuPressure:
    case system_health_item::kIoPressure:
        return 300;
    case system_health_item::kMemoryPressure:
        return 100;
    case system_health_item::kDescriptors:
        return 800;
    case system_health_item::kLoad:
        return 2000;
    case system_health_item::kAgents:
        return Courier::kTimeoutMs;
    case system_health_item::kCpuEvent:
        return 950;
    case system_health_item::kCpuEventTime:
        return 3000;
    default:
        return 0;
    }
}

void CheckLimit(uint32_t item, uint32_t limit) {
    const auto check = [limit](bool holds, const std::string &expected) {
        if (!holds) {
            const auto &method = host::methods::TarnPadsSetPadsAppFunSwitchByTarnd;
            throw host::meaning::BadMember(method, "limit", limit, expected);
        }
    };
    check(item != 0 || limit == 0, "0, as items have limits of their own");
    check(!IsOfDaemon(item) || !IsShare(item) || limit <= 1000, "a share of at most 1000");
    check(item != system_health_item::kAgents || limit <= Courier::kTimeoutMs,
          fmt::format("at most {} ms", Courier::kTimeoutMs));
}

} // namespace

HealthSettings::HealthSettings(host::Store &store, AgentLine &line, Courier &courier)
    : store_(store), line_(line), courier_(courier), errand_(courier.Add([this](uint32_t pid) { BringTo(pid); })) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion, [this](const host::Document &content) TARN_REQUIRES(mutex_) {
        Functions functions;
        for (const host::Document &entry : content.ArrayAt("functions")) {
            const Tarn_sys_diag_PadsAppFunSwitch one{entry.Get<uint8_t>("function"), entry.Get<bool>("on"),
                                                     entry.Get<uint32_t>("limit")};
            host::meaning::Check(host::methods::TarnPadsSetPadsAppFunSwitchByTarnd, one);
            CheckLimit(one.ucFunction, one.uiValue);
            functions[one.ucFunction] = {one.ucSwitch == 1, one.uiValue};
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

void HealthSettings::SwitchAll(bool on) {
    const host::MutexLock lock(mutex_);
    Keep(on, functions_);
    host::Log().info("health: {}", on ? "on" : "off");
}

void HealthSettings::SwitchFunction(const Tarn_sys_diag_PadsAppFunSwitch &request) {
    const auto &[item, isOn, limit] = request;
    const bool on = isOn == 1;
    CheckLimit(item, limit);
    const host::MutexLock lock(mutex_);
    Functions functions = functions_;
    if (item == 0) {
        for (const host::meaning::Choice &one : system_health_item::kAll) {
            functions[one].on = on;
        }
        for (auto &[id, function] : functions) {
            function.on = on;
        }
    }
    Function &function = functions[item];
    function.on = on;
    function.limit = limit != 0 ? limit : function.limit;
    Keep(allOn_, std::move(functions));
    host::Log().info("health function {}: {}, limit {}", item, on ? "on" : "off", limit);
}

bool HealthSettings::AllOn() const {
    const host::MutexLock lock(mutex_);
    return allOn_;
}

bool HealthSettings::IsOn(uint32_t item) const {
    return AllOn() && Of(item).on;
}

uint32_t HealthSettings::LimitOf(uint32_t item) const {
    return Of(item).limit;
}

HealthSettings::Item HealthSettings::Of(uint32_t item) const {
    const host::MutexLock lock(mutex_);
    const auto set = functions_.find(item);
    if (set == functions_.end()) {
        return {true, DefaultLimit(item), false};
    }
    const auto &[on, limit] = set->second;
    return {on, limit == 0 ? DefaultLimit(item) : limit, true};
}

std::vector<Tarn_sys_diag_PadsAppFunSwitch> HealthSettings::OfAgents() const {
    const host::MutexLock lock(mutex_);
    std::vector<Tarn_sys_diag_PadsAppFunSwitch> switches; // 0, which stands for all, is the first
    for (const auto &[id, function] : functions_) {
        if (!IsOfDaemon(id)) {
            switches.push_back({static_cast<uint8_t>(id), function.on, function.limit});
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
