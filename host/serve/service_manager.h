// The service manager that has started the program and wants to be told how it goes; without one, nobody is told.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace host::service_manager {

// `status` is a line for whoever looks at the service.
void TellReady(const std::string &status);
void TellReloading();
void TellStopping();

// Within how much time it wants to hear each time that the program works; nothing where it does not.
std::optional<std::chrono::microseconds> WatchdogTime();
void TellThatItWorks();

} // namespace host::service_manager
