// The debug commands of the process: which there are, and those that wait to be run.
#pragma once

#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "host/osal/mutex.h"
#include "tarn_sysdiag/agent.h"

// Bounded, so that no command can fill the memory or a message.
struct TarnAgentOutput {
    std::string text;
};

namespace agent {

class CommandTable {
public:
    CommandTable(); // with the commands of builtins.cpp

    // 0, EINVAL or EEXIST.
    uint32_t Add(const char *name, const char *help, TarnAgentCommand function, void *userData);

    // The result of the command that a line asks for.
    uint32_t Run(const std::string &line, TarnAgentOutput &output) const;

    // A line for each command.
    std::string Help() const;

private:
    struct Command {
        std::string help;
        TarnAgentCommand function;
        void *userData;
    };

    bool Find(const std::string &name, Command &command) const;

    mutable host::Mutex mutex_;
    std::map<std::string, Command> commands_ TARN_GUARDED_BY(mutex_);
};

// Those that every agent has.
void AddBuiltins(CommandTable &table);

struct CommandResult {
    uint32_t result;
    uint32_t number;
    std::string text;
};

// Takes command lines, which are run one after the other, and keeps the result of the one that was taken last.
class CommandQueue {
public:
    static constexpr size_t kMaxWaiting = 8;

    // `wake` is called when there is one to run.
    CommandQueue(const CommandTable &table, std::function<void()> wake) : table_(table), wake_(std::move(wake)) {}

    void Put(std::string line);

    // Runs the one that has waited for longest. Whether others wait.
    bool RunNext();

    CommandResult Result() const;

    // Forgets the commands that wait, and the result.
    void Clean();

    // The same, and counts from 1 again.
    void Reset();

private:
    struct Job {
        uint32_t number;
        std::string line;
    };

    void SetResult(CommandResult result);

    const CommandTable &table_;
    const std::function<void()> wake_;
    mutable host::Mutex mutex_;
    std::deque<Job> waiting_ TARN_GUARDED_BY(mutex_);
    uint32_t lastNumber_ TARN_GUARDED_BY(mutex_) = 0;
    CommandResult result_ TARN_GUARDED_BY(mutex_){ENODATA, 0, ""};
};

} // namespace agent
