// What the command lines of the programs that serve have in common.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "host/serve/privilege.h"

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
    std::string logFile;
    std::optional<std::string> user;
    LogLevel logLevel = LogLevel::kInfo;
};

void Declare(CommandLine &line, ServeOptions &options);

constexpr int kBadUsage = 2;

// Throws what is wrong with the policy.
ServerOptions ServerOptionsOf(const ServeOptions &options);

// Of the options' state, and of the sockets.
std::vector<NeededDirectory> DirectoriesOf(const ServeOptions &options);

// From then on the log, and all else that the process writes to standard error, goes to the file of the options, if
// they name one. Throws std::system_error.
void OpenLog(const ServeOptions &options);

} // namespace host
