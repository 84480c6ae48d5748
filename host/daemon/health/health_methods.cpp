// What sets and tells the health of the system.
#include "host/daemon/agents/relay.h"
#include "host/meaning/health.h"
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

using Reply = host::Reply<Tarn_sys_diag_PadsSystemHealthResult>;

void Examine(uint8_t item, Reply &reply) {
    auto &[worst, on, itemNum, items] = reply.Members();
    worst = host::meaning::system_health_level::kUnknown;
    std::vector<Record> records;
    for (const HealthItem &one : Daemon::Serving().healthExaminer.Examine(item)) {
        worst = host::meaning::WorseHealth(worst, one.level);
        records.push_back(ToRecord(one));
    }
    on = Daemon::Serving().healthSettings.AllOn();
    items = reply.Keep(std::move(records), itemNum);
}

// The agent looks at its items when it is asked; what time it is there says the clock of its process.
void AskAgent(uint32_t pid, void *replyCtx, Reply &reply) {
    Daemon &daemon = Daemon::Serving();
    auto answer = daemon.agentLine.Ask(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), pid, Tarn_sys_diag_None{},
                                       RelayTimeout(replyCtx));
    auto &[worst, on, itemNum, items] = answer->record;
    const std::string now = host::CompactText(daemon.clock.Shown(daemon.clocks.WallNow()));
    for (uint32_t i = 0; i < itemNum; ++i) {
        host::CopyText(items[i].acValue3, now);
    }
    reply.Members() = answer->record;
    reply.KeepOwner(std::move(answer));
}

void Tell(const Tarn_sys_diag_PadsSystemHealthInput &request, void *replyCtx, Reply &reply) {
    const auto &[item, process] = request;
    process == 0 ? Examine(item, reply) : AskAgent(process, replyCtx, reply);
    const Daemon &daemon = Daemon::Serving();
    TarnHost_ExplainReply(
        replyCtx, fmt::format("by the daemon's clock, at {}", daemon.clock.Text(daemon.clocks.WallNow())).c_str());
}

} // namespace

} // namespace tarnd

uint32_t TarnPadsGetSystemHealthInfoByTarnd(const Tarn_sys_diag_PadsSystemHealthInput *request, void *replyCtx) {
    return host::Answer(host::methods::TarnPadsGetSystemHealthInfoByTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::Tell(*request, replyCtx, reply); });
}

uint32_t TarnPadsSetPadsGlobalSwitchByTarnd(const Tarn_sys_diag_PadsGlobalSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsGlobalSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchAll(request->ucGlobalSwitch == 1); });
}

uint32_t TarnPadsSetPadsAppFunSwitchByTarnd(const Tarn_sys_diag_PadsAppFunSwitch *request) {
    return host::Run(host::methods::TarnPadsSetPadsAppFunSwitchByTarnd, request,
                     [&] { tarnd::Daemon::Serving().healthSettings.SwitchFunction(*request); });
}
