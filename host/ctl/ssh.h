// tarnctl on another machine, by ssh.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ctl {

// Runs tarnctl there, with the terminal where there is one, and returns its exit code. An archive that it collects
// comes here. The program is $TARN_SSH, or ssh; a host may have ":PORT" behind it.
int RunAt(const std::string &host, std::vector<std::string> arguments);

// Takes "-H HOST" out of the arguments, where it stands before the command. Throws Failure for one without a name.
std::optional<std::string> TakeHost(std::vector<std::string> &arguments);

} // namespace ctl
