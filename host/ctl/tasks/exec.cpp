// exec: a debug command in an application, by its agent, and what became of it.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "host/ctl/interrupt.h"
#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/progress.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process, deadline = "1m";
    std::vector<std::string> words;
    bool json = false;
};

// The reply, whatever the command itself returned.
Reply ResultOf(const Globals &globals, Server &server, uint32_t pid, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    Progress progress(globals, "the command runs");
    const Interrupts interrupts;
    for (std::chrono::milliseconds pause{5};; pause = std::min(2 * pause, std::chrono::milliseconds(200))) {
        const Reply reply = server.AskAnyway("DBGCmdExecResultGetByTarnd", Json{{"process", pid}});
        if (reply["result"] != EINPROGRESS) {
            return reply;
        }
        if (std::chrono::steady_clock::now() >= end) {
            throw Failure(kDeadline, fmt::format("the command still runs after {}; --deadline gives it more time",
                                                 TimeText(deadline)));
        }
        if (interrupts.Came()) {
            server.Ask("DBGCmdExecCleanByTarnd", Json{{"process", pid}});
            throw Interrupted("interrupted: what waited is forgotten, a command that runs goes on without its output");
        }
        progress.Show();
        interrupts.Sleep(pause);
    }
}

void Exec(const Globals &globals, const Options &options) {
    const auto deadline = ParseTime("--deadline", options.deadline);
    Server server(globals);
    const uint32_t pid = FindProcess(server, options.process).pid;
    const std::string command = fmt::format("{}", fmt::join(options.words, " "));
    server.Ask("DBGCmdExecShowByTarnd", Json{{"process", pid}, {"command", command}});
    const Reply reply = ResultOf(globals, server, pid, deadline);
    const Json named = reply.Named();
    if (options.json) {
        std::cout << named.dump() << "\n";
    } else if (const Json &text = named["output"]; text.is_string() && text != "") {
        const Output output;
        std::cout << reply.Text("output") << "\n";
    }
    if (const auto result = reply["result"].get<uint32_t>(); result != 0) {
        const bool hasEnded = result == ECONNRESET || result == ESRCH;
        throw Failure(kRemote,
                      fmt::format("{}: failed with {}{}", command, reply.Text("result"),
                                  hasEnded ? "; the process has ended, tarnctl crashes may know why" : ""),
                      result);
    }
}

} // namespace

void AddExec(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("exec", "Runs a debug command in an application, and waits for its result",
                    {"exec worker help", "exec worker loop 60", "exec worker --deadline 10m dump all"});
    task.Operand(kProcess, options->process, "A process with an agent, as with stack").Required();
    task.Operand("COMMAND", options->words, "The command and its words; \"help\" lists the commands").Required();
    task.Option("--deadline", options->deadline, "TIME", "How long to wait for the result; default 1m");
    AddJson(task, options->json);
    task.Run([&globals, options] { Exec(globals, *options); });
}

} // namespace ctl
