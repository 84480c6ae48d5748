// What the programs that serve have in common: options, signals, and how they end.
#pragma once

#include <csignal>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/osal/log.h"
#include "host/runtime/server.h"

namespace host {

struct ServeOptions {
    std::string runDir;
    std::string stateDir;
    std::vector<std::string> limits;
    std::string policy;
    spdlog::level::level_enum logLevel = spdlog::level::info;
};

void Declare(CLI::App &app, ServeOptions &options);

// "Description [value]": what an option's help says of a default is the option's own value.
template <class Value>
std::string WithDefault(const std::string &description, const Value &value) {
    return fmt::format("{} [{}]", description, value);
}

// Nothing when the program shall run, else the exit code: 0 after --help and --version, kBadUsage for bad arguments.
std::optional<int> Parse(CLI::App &app, int argc, char **argv);

constexpr int kBadUsage = 2;

// Throws what is wrong with the policy.
ServerOptions ServerOptionsOf(const ServeOptions &options);

// To be called before the first thread starts, so that every thread inherits it and only main takes them.
sigset_t BlockSignals(std::initializer_list<int> numbers);

// Whether nobody wants to hear of a signal, as of SIGHUP under nohup(1).
bool IsIgnored(int signal);

// Ends the process when a request is still being worked on after the bound: its thread uses what the end of main would
// destroy.
void StopOrExit(Server &server);

} // namespace host
