// What the command fleet does, a function each.
#pragma once

#include <string>
#include <vector>

#include "host/ctl/commands.h"

namespace ctl {

struct FleetOptions {
    std::vector<std::string> words; // what to do, and with what
    std::string devices = "*";
    std::string deadline; // empty: that of local calls
    size_t atATime = 100;
    std::string since;              // empty: all
    std::vector<std::string> kinds; // none: all
};

// Of words behind the first one: a method and its request.
void CallFleet(const Globals &globals, const FleetOptions &options);
void PrintFleetEvents(const Globals &globals, const FleetOptions &options);

} // namespace ctl
