// What sets and tells the health of the system.
#include <algorithm>

#include "host/daemon/agents/relay.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Record = Tarn_sys_diag_SysHealthInfo;

Record ToRecord(const HealthItem &item) {
    const Tarn_sys_diag_Systime time = Daemon::Serving().clock.LocalTime(item.when);
    Record record{};
    record.ucValue1 = static_cast<uint8_t>(item.level);
    host::CopyText(record.acValue1, item.name);
    host::CopyText(record.acValue2, item.source);
    host::CopyText(record.acValue3, fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", time.usYear, time.ucMonth, time.ucDay,
                                                time.ucHour, time.ucMinute, time.ucSecond));
    host::CopyText(record.acValue4, item.text);
    return record;
}

void Examine(uint8_t function, host::Reply<Tarn_sys_diag_PadsSystemHealthResult> &reply) {
    std::vector<Record> records;
    for (const HealthItem &item : Daemon::Serving().healthExaminer.Examine(function)) {
        reply.uiValue1 = item.level == TARND_HEALTH_UNKNOWN ? reply.uiValue1 : std::max(reply.uiValue1, item.level);
        records.push_back(ToRecord(item));
    }
    reply.uiValue2 = Daemon::Serving().healthSettings.AllOn();
    reply.pstHealthInfo = reply.Keep(std::move(records), reply.uiHealthInfoNum);
}

} // namespace

} // namespace tarnd

uint32_t TarnPadsGetSystemHealthInfoByTarnd(const Tarn_sys_diag_PadsSystemHealthInput *request, void *replyCtx) {
    if (request->uiValue != 0) {
        return tarnd::Relay(host::methods::TarnPadsGetSystemHealthInfoByTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), request->uiValue,
                            Tarn_sys_diag_None{});
    }
    return host::Answer(host::methods::TarnPadsGetSystemHealthInfoByTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::Examine(request->ucValue, reply); });
}

uint32_t TarnPadsSetPadsGlobalSwitchByTarnd(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsGlobalSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchAll(request->ucGlobalSwitch); });
}

uint32_t TarnPadsSetPadsAppFunSwitchByTarnd(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsAppFunSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchFunction(*request); });
}
