// What sets and tells the health of the system.
#include <algorithm>

#include "host/daemon/agents/relay.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

using Record = Tarn_sys_diag_SysHealthInfo;

Record ToRecord(const HealthItem &item) {
    Record record{};
    auto &[level, name, source, lookedAt, found] = record;
    level = static_cast<uint8_t>(item.level);
    host::CopyText(name, item.name);
    host::CopyText(source, item.source);
    host::CopyText(lookedAt, host::CompactText(Daemon::Serving().clock.Shown(item.when)));
    host::CopyText(found, item.text);
    return record;
}

void Examine(uint8_t item, host::Reply<Tarn_sys_diag_PadsSystemHealthResult> &reply) {
    auto &[worst, on, itemNum, items] = reply.Members();
    std::vector<Record> records;
    for (const HealthItem &one : Daemon::Serving().healthExaminer.Examine(item)) {
        worst = one.level == host::meaning::system_health_level::kUnknown ? worst : std::max(worst, one.level);
        records.push_back(ToRecord(one));
    }
    on = Daemon::Serving().healthSettings.AllOn();
    items = reply.Keep(std::move(records), itemNum);
}

} // namespace

} // namespace tarnd

uint32_t TarnPadsGetSystemHealthInfoByTarnd(const Tarn_sys_diag_PadsSystemHealthInput *request, void *replyCtx) {
    if (const auto &[item, process] = *request; process != 0) {
        return tarnd::Relay(host::methods::TarnPadsGetSystemHealthInfoByTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), process, Tarn_sys_diag_None{});
    }
    return host::Answer(host::methods::TarnPadsGetSystemHealthInfoByTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::Examine(request->ucValue, reply); });
}

uint32_t TarnPadsSetPadsGlobalSwitchByTarnd(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsGlobalSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchAll(request->ucGlobalSwitch == 1); });
}

uint32_t TarnPadsSetPadsAppFunSwitchByTarnd(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsAppFunSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchFunction(*request); });
}
