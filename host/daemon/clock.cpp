// Time settings: checked and kept. The system's own clock and zone are not touched.
#include "host/daemon/clock.h"

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/values.h"
#include "host/osal/log.h"
#include "server/tarnd.h"

namespace tarnd {

Timezone CheckedTimezone(const Tarn_sys_diag_Timezone &wanted) {
    const std::string name(host::TextOf(wanted.szTimezoneName));
    const auto allowed = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               std::string_view("_+-/:,.<>").find(c) != std::string_view::npos;
    };
    if (name.empty() || !std::all_of(name.begin(), name.end(), allowed)) {
        throw host::BadValue("szTimezoneName", name, "a time zone's name, such as Europe/Berlin or CET-1CEST");
    }
    const auto offset = static_cast<int32_t>(wanted.uiTimezoneOffset);
    if (offset < TARND_ZONE_OFFSET_MIN || offset > TARND_ZONE_OFFSET_MAX) {
        throw host::BadValue("uiTimezoneOffset", offset,
                             fmt::format("{} to {} minutes", TARND_ZONE_OFFSET_MIN, TARND_ZONE_OFFSET_MAX));
    }
    return {name, offset};
}

void TakeTimezone(const Timezone &timezone, const char *source) {
    const Timezone before = TheState().SetTimezone(timezone);
    host::Log().info("time zone {} ({:+} minutes) from {}, before {} ({:+} minutes)", timezone.name,
                     timezone.offsetMinutes, source, before.name, before.offsetMinutes);
}

} // namespace tarnd

uint32_t SetTimezone(const Tarn_sys_diag_SetTimezoneInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx,
                              [&] { tarnd::TakeTimezone(tarnd::CheckedTimezone(request->stTimezone), "a client"); });
}
