// The records that every service uses.
#pragma once

#include "host/meaning/list.h"
#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/time.h"

namespace host::meaning {

RECORD(Result, {"uiResult", "result", Errno(), "0, or why it was not done."})

RECORD(Systime, {"usYear", "year", Number().UpTo(9999), "The year."},
       {"ucMonth", "month", Number().UpTo(12), "The month, from 1."},
       {"ucDay", "day", Number().UpTo(31), "The day of the month, from 1."},
       {"ucHour", "hour", Hours().UpTo(23), "The hour."}, {"ucMinute", "minute", Minutes().UpTo(59), "The minute."},
       {"ucSecond", "second", Seconds().UpTo(59), "The second."},
       {"ucWeek", "weekday", Number().UpTo(6), "The day of the week from Sunday, 0."},
       {"uiMillisecond", "millisecond", Milliseconds().UpTo(999), "The millisecond."})

RECORD(Timezone,
       {"szTimezoneName", "name", Text(),
        "Its name: letters, digits and \"_+-/:,.<>\", as \"Europe/Berlin\" or \"CET-1CEST\"."},
       {"uiTimezoneOffset", "offset", Signed(), "How many minutes it is east of Greenwich, -720 to 840."})

RECORD(Timehour, {"ucHour", "hour", Hours().Default(0), "The hours."},
       {"ucMinute", "minute", Minutes().Default(0), "The minutes."},
       {"ucSecond", "second", Seconds().Default(0), "The seconds."})

RECORD(DstWeek,
       {"usStartYear", "start-year", Number().From(1970).UpTo(2199).Zero("each year"),
        "The year in which clocks go forward."},
       {"ucStartMonth", "start-month", Number().From(1).UpTo(12), "The month, from 1."},
       {"ucStartWeek", "start-week", Number().From(1).UpTo(5), "The week of the month, 5 for the last."},
       {"ucStartWeekday", "start-weekday", Number().UpTo(6), "The day of that week from Sunday, 0."},
       {"ucStartHour", "start-hour", Hours().UpTo(23), "The hour, as the clock shows it before it changes."},
       {"usEndYear", "end-year", Number().From(1970).UpTo(2199).Zero("each year"),
        "The year in which clocks go back: none, as the start's, or one."},
       {"ucEndMonth", "end-month", Number().From(1).UpTo(12), "The month, from 1."},
       {"ucEndWeek", "end-week", Number().From(1).UpTo(5), "The week of the month, 5 for the last."},
       {"ucEndWeekday", "end-weekday", Number().UpTo(6), "The day of that week from Sunday, 0."},
       {"ucEndHour", "end-hour", Hours().UpTo(23), "The hour, as the clock shows it before it changes."})

// Without daylight saving nothing but ucDstFlag is looked at.
RECORD(Dst,
       {"szDstName", "name", Text().Where("ucDstFlag", 1),
        "Its name: letters, digits, blanks and \"_+-/\", as \"CEST\"."},
       {"stDstStart", "start", OneRecord().Where("ucDstMode", dst_mode::kByDate),
        "When clocks go forward, as they show it before they change."},
       {"uiDstOffset", "offset", Minutes().From(1).UpTo(180).Where("ucDstFlag", 1), "How far clocks go forward."},
       {"stDstEnd", "end", OneRecord().Where("ucDstMode", dst_mode::kByDate),
        "When clocks go back, as they show it before they change: at least a day from the start, within a year, and "
        "with a year only if the start has one."},
       {"ucDstMode", "mode", OneOf(dst_mode::kAll).Default(dst_mode::kByDate).Where("ucDstFlag", 1),
        "How start and end are stated."},
       {"stDstAdjust", "adjust", OneRecord().Where("ucDstFlag", 1), "The offset once more, or 0:00:00."},
       {"ucDstFlag", "on", Switch(), "On: clocks change by this rule; off: there is no daylight saving."},
       {"stDstWeek", "weeks", OneRecord().Where("ucDstMode", dst_mode::kByWeek), "Start and end by week."})

} // namespace host::meaning
