// What the command fleet does, a function each.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/ctl/commands.h"
#include "host/ctl/screen.h"

namespace ctl {

struct FleetOptions {
    std::vector<std::string> words; // what to do, and with what
    std::string devices = "*";
    std::string deadline; // empty: that of local calls
    std::optional<size_t> atATime;
    bool dryRun = false;
    Repetition repetition;
    std::string delay;              // of the repetition
    std::string since;              // empty: all
    std::vector<std::string> kinds; // none: all
};

constexpr size_t kCallsAtATime = 100;
constexpr size_t kSetAtATime = 10;

// Of words behind the first one: a method and its request.
void CallFleet(const Globals &globals, const FleetOptions &options);
// Of words behind the first one: NAME=VALUE for each setting.
void SetFleet(const Globals &globals, const FleetOptions &options);
void TopOfFleet(const Globals &globals, const FleetOptions &options);
void PrintFleetEvents(const Globals &globals, const FleetOptions &options);

} // namespace ctl
