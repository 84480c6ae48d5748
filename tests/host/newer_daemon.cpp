#include "host/meaning/shared_records.h"

#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include <cstring>

#include "newer_daemon.h"
#include "newer_types.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/types/tarnd.h"

namespace host::meaning {

namespace {

constexpr Choice kOrders[] = {{1, "name", "By their names."}, {2, "time", "The oldest first."}};

} // namespace

METHOD(GetFanInfo, Group::kReading, "Tells of the machine's fans.", "fan=1")
RECORD(FanInput, {"uiFan", "fan", Number().UpTo(8).Zero("all"), "The fan."},
       {"usFrom", "from", Permille().UpTo(1000).Zero("any"), "Those that turn at least as fast."},
       {"ucOrder", "order", OneOf(kOrders).Default(1), "In which order."},
       {"acRoom", "room", Text().Zero("all"), "Those of a room."})
RECORD(Fan, {"acName", "name", Text(), "Its name."}, {"ullTime", "time", Milliseconds(), "How long it has turned."},
       {"ucState", "state", Letter(), "Its state."})
RECORD(FanInfo, {"pstFan", "fans", Records(), "The fans."}, {"astFirst", "first", Records(), "The two at the front."},
       {"stSince", "since", LocalTime(), "When they were built in."},
       {"aullTurns", "turns", Numbers(), "Turns in the last minutes."},
       {"puiStep", "steps", Numbers(), "Speeds that they know."}, {"pucImage", "image", Binary(), "A drawing."},
       {"pcNote", "note", Text(), "What else there is to say."},
       {"usShare", "share", Permille(), "How fast they turn."})

} // namespace host::meaning

namespace host::methods {

extern const meaning::MethodOf<Tarn_sys_diag_FanInput, Tarn_sys_diag_FanInfo> GetFanInfo;

} // namespace host::methods

DEFINE_MEANING("TarnSysdiagTarnd", GetFanInfo, Tarn_sys_diag_FanInput, Tarn_sys_diag_FanInfo)

namespace {

uint32_t PidIsOnline(const Tarn_sys_diag_PidIsOnlineInput *input, void *replyCtx) {
    Tarn_sys_diag_PidIsOnlineOuput reply{input->uiPid, 1};
    return TarnHost_Reply(replyCtx, &reply);
}
void PidIsOnline_free(Tarn_sys_diag_PidIsOnlineOuput *) {}

uint32_t GetFanInfo(const Tarn_sys_diag_FanInput *input, void *replyCtx) {
    Tarn_sys_diag_FanInfo reply = newer::Fans();
    reply.uiFanNum = input->uiFan == 0 ? reply.uiFanNum : 1;
    return TarnHost_Reply(replyCtx, &reply);
}
void GetFanInfo_free(Tarn_sys_diag_FanInfo *) {}

#define TARN_SERVICE TarnSysdiagTarnd
#define TARN_METHODS "newer_methods.h"
#include "server/tables.inc"

constexpr const host::meaning::Method *kMethods[] = {&host::methods::PidIsOnline, &host::methods::GetFanInfo};

} // namespace

namespace newer {

const host::meaning::Service kDaemon{"TarnSysdiagTarnd", "A daemon of tomorrow.", kMethods};

const IdlModuleSpec &kServiceSpec = __module_spec_TarnSysdiagTarnd;

const Tarn_sys_diag_FanInfo &Fans() {
    static char note[] = "two of them";
    static Tarn_sys_diag_Fan fans[] = {{"front", 90'000, 'R'}, {"back", 1, 'S'}};
    static uint32_t steps[] = {100, 500, 1000};
    static uint8_t image[] = {0, 1, 255};
    static const Tarn_sys_diag_FanInfo all{
        2,    fans, {fans[0], fans[1]}, {2026, 11, 21, 1, 2, 3, 6, 0}, {7, 8, uint64_t{1} << 60}, 3, steps, 3, image,
        note, 900};
    return all;
}

} // namespace newer
