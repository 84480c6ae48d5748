// What the programs that serve have in common: options, signals, and how they end.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "host/osal/log.h"
#include "host/runtime/server.h"

namespace CLI {
class App;
}

namespace host {

// What a program's command line may say. A declaration is also a line of --help, in which `valueName` stands for the
// value.
class CommandLine {
public:
    // What is wrong with a value; empty when nothing is.
    using Check = std::function<std::string(const std::string &)>;
    struct Range {
        uint32_t least;
        uint32_t most;
    };

    CommandLine(const char *name, const char *description);
    ~CommandLine();

    void Operand(const char *name, std::string &value, const std::string &help);
    void Flag(const char *name, bool &value, const std::string &help);
    void Option(const char *name, std::string &value, const char *valueName, const std::string &help,
                const Check &check = {});
    void Option(const char *name, std::optional<std::string> &value, const char *valueName, const std::string &help);
    void Option(const char *name, uint64_t &value, const char *valueName, const std::string &help);
    void Option(const char *name, uint32_t &value, Range range, const char *valueName, const std::string &help);
    void LogLevelOption(const char *name, LogLevel &level);
    // One value each time, or several.
    void Repeated(const char *name, std::vector<std::string> &values, const char *valueName, const std::string &help,
                  const Check &check);
    void List(const char *name, std::vector<std::string> &values, const char *valueName, const std::string &help,
              const Check &check);

    // Nothing when the program shall run, else the exit code: 0 after --help and --version, kBadUsage for bad
    // arguments.
    std::optional<int> Parse(int argc, char **argv);

private:
    const std::unique_ptr<CLI::App> app_;
};

// "Description [value]": what an option's help says of a default is the option's own value.
template <class Value>
std::string WithDefault(const std::string &description, const Value &value) {
    return fmt::format("{} [{}]", description, value);
}

struct ServeOptions {
    std::string runDir;
    std::string stateDir;
    std::vector<std::string> limits;
    std::string policy;
    std::optional<std::string> user;
    LogLevel logLevel = LogLevel::kInfo;
};

void Declare(CommandLine &line, ServeOptions &options);

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
