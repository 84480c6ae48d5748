// The health of the process, asked for from outside.
#include <algorithm>

#include "host/agent/agent.h"
#include "host/agent/local_time.h"
#include "host/agent/methods.h"

namespace agent {

uint32_t TarnPadsGetProcSystemHealthInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::TarnPadsGetProcSystemHealthInfo, request, replyCtx, [](auto &reply) {
        std::vector<Tarn_sys_diag_SysHealthInfo> infos;
        const Agent &agent = Agent::OfProcess();
        const std::string when = LocalTimeText(agent.clocks.WallNow(), "%Y%m%d%H%M%S");
        for (const Health::Result &result : agent.health.Look()) {
            reply.uiValue1 = std::max<uint32_t>(reply.uiValue1, result.level);
            Tarn_sys_diag_SysHealthInfo &info = infos.emplace_back();
            info.ucValue1 = result.level;
            host::CopyText(info.acValue1, result.name);
            host::CopyText(info.acValue2, agent.Name());
            host::CopyText(info.acValue3, when);
            host::CopyText(info.acValue4, result.text);
        }
        reply.uiValue2 = agent.health.IsOn() ? 1 : 0;
        reply.pstHealthInfo = reply.Keep(std::move(infos), reply.uiHealthInfoNum);
    });
}

uint32_t TarnPadsSetProcPadsGlobalSwitch(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(host::methods::TarnPadsSetProcPadsGlobalSwitch, request, [&] {
        if (request->ucGlobalSwitch > 1) {
            throw host::BadValue("ucGlobalSwitch", request->ucGlobalSwitch, "0 or 1");
        }
        Agent::OfProcess().health.SetAll(request->ucGlobalSwitch == 1);
    });
}

uint32_t TarnPadsSetProcPadsAppFunSwitch(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(host::methods::TarnPadsSetProcPadsAppFunSwitch, request, [&] {
        if (request->ucSwitch > 1) {
            throw host::BadValue("ucSwitch", request->ucSwitch, "0 or 1");
        }
        Agent::OfProcess().health.Set(request->ucFunction, request->ucSwitch == 1, request->uiValue);
    });
}

} // namespace agent
