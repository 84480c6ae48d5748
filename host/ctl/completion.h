// What a shell offers for a word of tarnctl's command line. Commands and options come from the parser, names of
// methods, members and types from the descriptions, processes and agents from the daemon, so that none is listed twice.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "host/ctl/commands.h"

namespace ctl {

// Whether a command is one that help and completion show.
inline bool IsForPeople(const CLI::App *command) {
    return !command->get_group().empty();
}

// "-o" and "--output", as they are typed.
std::vector<std::string> Spellings(const CLI::Option &option);

// Prints what the last of the words can be, behind the program's name, a line each; ":files" or ":directories" where
// the shell knows. What ends with "=" goes on.
void Complete(const CLI::App &app, const Globals &globals, const std::vector<std::string> &words);

// Writes the script of a shell, which asks Complete, to standard output.
void WriteCompletion(const std::string &shell);

} // namespace ctl
