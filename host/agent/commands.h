// The debug commands of the process: what there is, and the thread that runs them.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "host/agent/tarn_agent.h"

// Bounded, so that no command can fill the memory or a message.
struct TarnAgentOutput {
    std::string text;
};

namespace agent {

struct Command {
    std::string help;
    TarnAgentCommand function;
    void *userData;
};

class Registry {
public:
    Registry(); // with the commands of builtins.cpp

    // 0, EINVAL or EEXIST.
    uint32_t Add(const char *name, const char *help, TarnAgentCommand function, void *userData);

    // The result of the command that a line asks for.
    uint32_t Run(const std::string &line, TarnAgentOutput &output) const;

    // A line for each command.
    std::string Help() const;

private:
    bool Find(const std::string &name, Command &command) const;

    mutable std::mutex mutex_;
    std::map<std::string, Command> commands_;
};

// Those that every agent has.
void AddBuiltins(Registry &registry);

struct CommandResult {
    uint32_t result;
    uint32_t number;
    std::string text;
};

// Takes commands and runs them on a thread of its own, one after the other.
class Runner {
public:
    explicit Runner(const Registry &registry) : registry_(registry) {}

    void Start();
    void Show(std::string line);
    CommandResult Result() const;
    void Clean();

private:
    struct Job {
        uint32_t number;
        std::string line;
    };

    static constexpr size_t kMaxWaiting = 8;

    void Work(const std::stop_token &stop);
    void SetResult(CommandResult result);

    const Registry &registry_;
    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<Job> waiting_;
    uint32_t lastNumber_ = 0;
    CommandResult result_{ENODATA, 0, ""}; // of the command that was taken last
    std::jthread thread_;                  // ends before what it uses
};

// Whom the methods for commands mean; set before the service is served.
void ServeCommandsOf(Runner *runner);

} // namespace agent
