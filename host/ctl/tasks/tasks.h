// What a person wants to know or to do, a file each. A function makes the task's command.
#pragma once

#include "host/ctl/command.h"
#include "host/ctl/commands.h"

namespace ctl {

void AddPs(const Command &program, const Globals &globals);
void AddTop(const Command &program, const Globals &globals);
void AddStack(const Command &program, const Globals &globals);
void AddMem(const Command &program, const Globals &globals);
void AddSettings(const Command &program, const Globals &globals);
void AddCrashes(const Command &program, const Globals &globals);
void AddOverloads(const Command &program, const Globals &globals);
void AddLeaks(const Command &program, const Globals &globals);
void AddEvents(const Command &program, const Globals &globals);
void AddHealth(const Command &program, const Globals &globals);
void AddCollect(const Command &program, const Globals &globals);
void AddExec(const Command &program, const Globals &globals);
void AddTime(const Command &program, const Globals &globals);
void AddRules(const Command &program, const Globals &globals);
void AddMeasure(const Command &program, const Globals &globals);
void AddMetrics(const Command &program, const Globals &globals);
void AddWatch(const Command &program, const Globals &globals);

// "500ms", "2s", "1m"; a bare number is of that unit. Throws Failure, which names the option.
enum class TimeUnit { kMilliseconds, kSeconds };
std::chrono::milliseconds ParseTime(const char *option, const std::string &text, TimeUnit bare = TimeUnit::kSeconds);

// The same, up to years: "1h", "7d".
std::chrono::seconds ParseSpan(const char *option, const std::string &text);

// "1h" is that long ago; or a time. Throws Failure, which names the option.
std::chrono::system_clock::time_point SinceOf(const char *option, const std::string &text);

// How ParseTime takes it.
std::string TimeText(std::chrono::milliseconds time);

} // namespace ctl
