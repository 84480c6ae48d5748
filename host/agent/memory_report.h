// The application's memory as text: tables of blocks, partitions, modules, damages.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "host/agent/memory.h"

namespace agent {

// Lines, and how many they are without the head.
struct Report {
    std::string text;
    uint32_t lineNum = 0;

    void Add(const std::string &line) {
        text += line;
        ++lineNum;
    }
};

// What a diagnosis command, one of memory_command, answers; throws EINVAL for an argument that makes no sense.
Report Diagnose(Memory &memory, uint32_t command, std::string_view argument);

// The program or shared object whose code allocated at a site.
std::string ModuleOf(const CallSite &site);

// Of the blocks that a function takes: a line for each; or for each module that allocated some, and that the other
// function takes.
using TakesBlock = std::function<bool(const BlockInfo &block)>;
Report DetailReport(const Memory &memory, const TakesBlock &takes);
Report ModuleReport(const Memory &memory, const TakesBlock &takes, const std::function<bool()> &takesModule);

// Damages, hostages or both, as damage_report has them.
Report DamageReport(const Memory &memory, uint32_t type);

} // namespace agent
