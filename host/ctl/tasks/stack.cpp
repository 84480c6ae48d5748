// stack: what the threads of a process are doing, once or on average.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <iostream>
#include <map>

#include "host/ctl/interrupt.h"
#include "host/ctl/process.h"
#include "host/ctl/progress.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process, every = "100ms";
    uint32_t thread = 0, samples = 0;
    bool all = false, folded = false, json = false;
};

struct Stack {
    uint64_t thread;
    std::string name;
    uint64_t heldUpUs;
    std::vector<std::string> functions; // the innermost first
};

std::vector<Stack> Read(Server &server, uint32_t pid, uint32_t tid) {
    std::vector<Stack> stacks;
    const Json request{{"process", pid}, {"thread", tid}};
    for (const Json &thread : server.Ask("GetCallStackInfoByTid", request).In("threads").Named()) {
        Stack stack{thread["thread"].get<uint64_t>(),
                    host::LineOfText(thread["name"].get<std::string>()),
                    thread["held_up_us"].get<uint64_t>(),
                    {}};
        const auto frames = std::min<size_t>(thread["frames"].get<size_t>(), thread["functions"].size());
        for (size_t i = 0; i < frames; ++i) {
            stack.functions.push_back(host::LineOfText(thread["functions"][i]["function"].get<std::string>()));
        }
        stacks.push_back(std::move(stack));
    }
    return stacks;
}

void Print(const std::vector<Stack> &stacks) {
    const Output output;
    for (const Stack &stack : stacks) {
        std::cout << (&stack == &stacks.front() ? "" : "\n")
                  << output.GetStyle().Bold(fmt::format("thread {} ({})", stack.thread, stack.name))
                  << fmt::format(", held up {} us\n", stack.heldUpUs);
        for (size_t i = 0; i < stack.functions.size(); ++i) {
            std::cout << fmt::format("  #{:<2} {}\n", i, stack.functions[i]);
        }
        if (stack.functions.empty()) {
            std::cout << "  no stack: it waits for a device and does not stop\n";
        }
    }
}

void PrintJson(const std::vector<Stack> &stacks) {
    for (const Stack &stack : stacks) {
        std::cout << Json{{"thread", stack.thread},
                          {"name", stack.name},
                          {"held_up_us", stack.heldUpUs},
                          {"functions", stack.functions}}
                         .dump()
                  << "\n";
    }
}

// ---- Samples ----

// A function as it was called, and what it called in turn.
struct Node {
    uint32_t samples = 0;
    std::map<std::string, Node> called;

    void Add(std::span<const std::string> outermostLast) {
        ++samples;
        if (!outermostLast.empty()) {
            called[outermostLast.back()].Add(outermostLast.first(outermostLast.size() - 1));
        }
    }
};

// "Worker::Run(int)" of "Worker::Run(int)+0x1c": a function is one, wherever it is.
std::string WithoutOffset(const std::string &function) {
    const size_t sign = function.rfind("+0x");
    const bool hasName = sign != function.npos && function.find(".so") > sign;
    return hasName ? function.substr(0, sign) : function;
}

void AddSample(const std::vector<Stack> &stacks, Node &root) {
    for (Stack stack : stacks) {
        std::ranges::transform(stack.functions, stack.functions.begin(), WithoutOffset);
        stack.functions.push_back(stack.name);
        root.Add(stack.functions);
    }
}

// Ends early when it is interrupted: what was seen until then is not lost.
Node Sample(const Globals &globals, Server &server, uint32_t pid, const Options &options) {
    const std::chrono::milliseconds every = ParseTime("--every", options.every, TimeUnit::kMilliseconds);
    Node root;
    Progress progress(globals, "samples", options.samples);
    const Server::Part part(server, progress);
    const Interrupts interrupts;
    try {
        for (uint32_t i = 0; i < options.samples && (i == 0 || interrupts.Sleep(every)); ++i) {
            AddSample(Read(server, pid, options.all ? 0 : options.thread), root);
            progress.Set(i + 1);
        }
    } catch (const Interrupted &) {
        if (root.samples == 0) {
            throw;
        }
    }
    return root;
}

void PrintTree(const Node &node, uint32_t all, size_t indent) {
    std::vector<const std::pair<const std::string, Node> *> called;
    for (const auto &one : node.called) {
        called.push_back(&one);
    }
    std::ranges::stable_sort(
        called, [](const auto *left, const auto *right) { return left->second.samples > right->second.samples; });
    for (const auto *const one : called) {
        std::cout << fmt::format("{:5.1f} %  {}{}\n", 100.0 * one->second.samples / all, std::string(indent, ' '),
                                 one->first);
        PrintTree(one->second, all, indent + 2);
    }
}

// Each way to a leaf, with how often it was seen there: the outermost function first.
template <class Each>
void Walk(const Node &node, std::vector<std::string> &way, Each each) {
    uint32_t beyond = 0;
    for (const auto &[function, called] : node.called) {
        way.push_back(function);
        Walk(called, way, each);
        way.pop_back();
        beyond += called.samples;
    }
    if (node.samples > beyond) {
        each(way, node.samples - beyond);
    }
}

void PrintSamples(const Node &root, const Options &options) {
    std::vector<std::string> way;
    if (options.json) {
        Walk(root, way, [](const auto &functions, uint32_t count) {
            std::cout << Json{{"functions", functions}, {"samples", count}}.dump() << "\n";
        });
    } else if (options.folded) {
        Walk(root, way, [](const auto &functions, uint32_t count) {
            std::cout << fmt::format("{} {}\n", fmt::join(functions, ";"), count);
        });
    } else {
        const Output output;
        PrintTree(root, root.samples, 0);
    }
}

void ShowStack(const Globals &globals, Options options) {
    Server server(globals);
    const uint32_t pid = FindProcess(server, options.process).pid;
    if (options.folded && options.samples == 0) {
        throw Failure(kUsage, "--folded: expected --samples N with it");
    }
    options.thread = options.thread == 0 ? pid : options.thread;
    if (options.samples != 0) {
        PrintSamples(Sample(globals, server, pid, options), options);
        return;
    }
    const std::vector<Stack> stacks = Read(server, pid, options.all ? 0 : options.thread);
    (options.json ? PrintJson : Print)(stacks);
}

} // namespace

void AddStack(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    CLI::App *const task =
        AddTask(app, "stack", "What the threads of a process are doing: their call stacks",
                {"stack worker", "stack 4711 -t 4713", "stack worker --all --samples 50 --every 20ms",
                 "stack worker --samples 200 --folded >worker.folded"});
    task->add_option(kProcess, options->process, kProcessHelp)->required()->option_text(" ");
    auto *const thread =
        task->add_option("-t", options->thread, "This thread; default the process's first")->option_text("TID");
    task->add_flag("--all", options->all, "All threads")->excludes(thread);
    task->add_option("--samples", options->samples, "So many times, as a tree with the share of each function")
        ->option_text("N")
        ->check(CLI::Range(1U, 100'000U));
    task->add_option("--every", options->every, "Time between two samples, in ms without a unit; default 100ms")
        ->option_text("TIME");
    task->add_flag("--folded", options->folded, "The samples as lines for flame graphs, \"main;work;spin 12\"");
    task->add_flag("--json", options->json, "For programs: an object a line, for each thread or way that was seen");
    task->callback([&globals, options] { ShowStack(globals, *options); });
}

} // namespace ctl
