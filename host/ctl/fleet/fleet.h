// Devices that are reached over a fleet's server.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/ctl/command.h"
#include "host/ctl/commands.h"
#include "host/fleet/gateway.h"
#include "host/fleet/hello.h"

namespace ctl {

// The connection to the fleet's server, which --fleet or the context in use names. Throws Failure.
class Fleet {
public:
    explicit Fleet(const Globals &globals);

    fleet::Connection &Server() { return connection_; }
    fleet::Caller &Caller() { return caller_; }

private:
    fleet::Connection connection_;
    fleet::Caller caller_;
};

// A device whose services are in a run directory of this machine while this lives. Throws Failure.
class Device {
public:
    Device(const Globals &globals, const std::string &name);

    const std::filesystem::path &RunDir() const { return gateway_.RunDir(); }

private:
    Fleet fleet_;
    fleet::Gateway gateway_;
};

using fleet::Hello;

// What options that choose devices say in help.
constexpr char kDevicesHelp[] = "Those with this name, or a pattern such as 'press-*'";

// Of the devices that fit, by name. Throws Failure.
std::vector<Hello> Hellos(Fleet &fleet, const std::string &pattern);
// The same, where it has to be one at least.
std::vector<Hello> SomeHellos(Fleet &fleet, const std::string &pattern);

bool Fits(const std::string &device, const std::string &pattern);

// The contexts that there are, by name.
std::vector<std::string> Contexts();

void AddDevices(const Command &program, const Globals &globals);
void AddFleet(const Command &program, const Globals &globals);
void AddContext(const Command &program);

} // namespace ctl
