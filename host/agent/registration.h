// Keeps the agent registered with the daemon, which may come, go and be restarted at any time.
#pragma once

#include <filesystem>
#include <string>

#include "host/agent/periodic.h"
#include "host/agent/resources.h"
#include "host/meaning/choices.h"
#include "host/runtime/client.h"

namespace agent {

class Registration {
public:
    Registration(std::string name, const std::filesystem::path &runDir, const Resources &resources);
    ~Registration(); // says goodbye

private:
    void Renew();
    uint32_t Call(const host::meaning::Choice
                      &announced); // the daemon's process; throws what kept it from taking the registration
    void Subscribe();              // to what the application wants of the daemon

    const std::string name_;
    const Resources &resources_;
    host::Client client_;
    uint32_t daemonPid_ = 0; // whom the agent is registered with; 0: with none
    uint32_t events_ = 0;    // that the daemon was told the application to want
    std::string failure_;    // the last that was logged, so that each is logged once
    Periodic renewal_;
};

} // namespace agent
