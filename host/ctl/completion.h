// completion: what a shell needs to complete tarnctl's command lines. Commands and options come from the parser, names
// of methods and types from the descriptions, so that neither is listed twice.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace ctl {

// Whether a command is one that help and completion show.
inline bool IsForPeople(const CLI::App *command) {
    return !command->get_group().empty();
}

// Writes the script of a shell, "bash" or "zsh", to standard output.
void WriteCompletion(const CLI::App &app, const std::string &shell);

} // namespace ctl
