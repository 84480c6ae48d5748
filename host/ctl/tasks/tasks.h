// What a person wants to know or to do, a file each. A function makes the task's command.
#pragma once

#include <CLI/CLI.hpp>

#include "host/ctl/commands.h"

namespace ctl {

void AddPs(CLI::App &app, const Globals &globals);
void AddTop(CLI::App &app, const Globals &globals);
void AddStack(CLI::App &app, const Globals &globals);
void AddMem(CLI::App &app, const Globals &globals);
void AddSettings(CLI::App &app, const Globals &globals);
void AddCrashes(CLI::App &app, const Globals &globals);
void AddOverloads(CLI::App &app, const Globals &globals);
void AddLeaks(CLI::App &app, const Globals &globals);
void AddEvents(CLI::App &app, const Globals &globals);
void AddHealth(CLI::App &app, const Globals &globals);
void AddCollect(CLI::App &app, const Globals &globals);
void AddExec(CLI::App &app, const Globals &globals);
void AddTime(CLI::App &app, const Globals &globals);
void AddRules(CLI::App &app, const Globals &globals);
void AddMeasure(CLI::App &app, const Globals &globals);
void AddMetrics(CLI::App &app, const Globals &globals);
void AddWatch(CLI::App &app, const Globals &globals);

// A command whose help ends with examples, a line each without "tarnctl".
CLI::App *AddTask(CLI::App &app, const char *name, const char *sentence, std::initializer_list<const char *> examples);

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
