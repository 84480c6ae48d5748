// A machine's daemon, as it is looked at.
#pragma once

#include <string>

#include "host/runtime/client.h"
#include "host/web/events.h"
#include "host/web/live.h"
#include "host/web/tasks.h"

namespace web {

class Device {
public:
    // Of the daemon's sockets, empty for the usual one; and the program that asks what is asked now and then.
    Device(const std::string &runDir, const std::string &tarnctl);

private:
    host::Client client_;

public:
    Live live;
    Tasks tasks;
    Events events;
};

} // namespace web
