// The health of the process, asked for from outside.
#include "host/agent/agent.h"
#include "host/agent/methods.h"
#include "host/clock/calendar.h"
#include "host/meaning/health.h"

namespace agent {

uint32_t TarnPadsGetProcSystemHealthInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::TarnPadsGetProcSystemHealthInfo, request, replyCtx, [](auto &reply) {
        auto &[worst, on, itemNum, items] = reply.Members();
        const Agent &agent = Agent::OfProcess();
        const std::string when = host::CompactText(host::SystemsTime(agent.clocks.WallNow()).local);
        std::vector<Tarn_sys_diag_SysHealthInfo> infos;
        worst = host::meaning::system_health_level::kUnknown;
        for (const Health::Result &result : agent.health.Look()) {
            auto &[level, name, source, lookedAt, found] = infos.emplace_back();
            level = result.level;
            host::CopyText(name, result.name);
            host::CopyText(source, agent.Name());
            host::CopyText(lookedAt, when);
            host::CopyText(found, result.text);
            worst = host::meaning::WorseHealth(worst, level);
        }
        on = agent.health.IsOn() ? 1 : 0;
        items = reply.Keep(std::move(infos), itemNum);
    });
}

uint32_t TarnPadsSetProcPadsGlobalSwitch(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(host::methods::TarnPadsSetProcPadsGlobalSwitch, request,
                     [&] { Agent::OfProcess().health.SetAll(request->ucGlobalSwitch == 1); });
}

uint32_t TarnPadsSetProcPadsAppFunSwitch(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(host::methods::TarnPadsSetProcPadsAppFunSwitch, request, [&] {
        const auto &[item, on, limit] = *request;
        Agent::OfProcess().health.Set(item, on == 1, limit);
    });
}

} // namespace agent
