// stack: what the threads of a process are doing, once or on average.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

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

struct Frame {
    std::string text; // "Worker::Run(int)+0x1c"; "libm.so.6+0x4c10" in a module without a symbol for it
    std::string
        name; // "Worker::Run(int)", wherever in it; "[libm.so.6]", as profilers write what is of no known function
};

struct Stack {
    uint64_t thread;
    std::string name;
    uint64_t heldUpUs;
    std::vector<Frame> frames; // the innermost first
};

// Where modules begin, as a reply with stacks explains it: "worker at 0x555555554000, build id 1b7f; libc.so.6 at ...".
std::set<uint64_t> ModuleStarts(std::string_view explanation) {
    constexpr std::string_view kAt = " at 0x", kEnd = "; ";
    std::set<uint64_t> starts;
    for (size_t at = 0; (at = explanation.find(kAt, at)) != explanation.npos; at = explanation.find(kEnd, at)) {
        uint64_t start = 0;
        std::from_chars(explanation.data() + at + kAt.size(), explanation.data() + explanation.size(), start, 16);
        starts.insert(start);
        at += kAt.size();
    }
    return starts;
}

// An offset is from a module's start where no symbol covers the address. Of libraries not all starts may be told.
Frame FrameOf(const std::string &text, uint64_t address, const std::set<uint64_t> &moduleStarts) {
    const size_t sign = text.rfind("+0x");
    if (sign == text.npos) {
        return {text, text};
    }
    uint64_t offset = 0;
    std::from_chars(text.data() + sign + 3, text.data() + text.size(), offset, 16);
    const bool hasFunction = !moduleStarts.contains(address - offset) && text.find(".so") > sign;
    const std::string known = text.substr(0, sign);
    return {text, hasFunction ? known : fmt::format("[{}]", known)};
}

std::vector<Stack> Read(Server &server, uint32_t pid, uint32_t tid) {
    std::vector<Stack> stacks;
    const Reply reply = server.Ask("GetCallStackInfoByTid", Json{{"process", pid}, {"thread", tid}});
    const std::set<uint64_t> moduleStarts = ModuleStarts(reply.explanation);
    const Elements threads = reply.In("threads");
    for (const Json &wire : threads.wire) {
        const Json thread = threads.Named(wire);
        const Json &addresses = threads.Value(wire, "stack");
        Stack stack{thread["thread"].get<uint64_t>(),
                    host::LineOfText(thread["name"].get<std::string>()),
                    thread["held_up_us"].get<uint64_t>(),
                    {}};
        const auto frames = std::min<size_t>(thread["frames"].get<size_t>(), thread["functions"].size());
        for (size_t i = 0; i < frames; ++i) {
            stack.frames.push_back(FrameOf(host::LineOfText(thread["functions"][i]["function"].get<std::string>()),
                                           addresses.at(i).get<uint64_t>(), moduleStarts));
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
        for (size_t i = 0; i < stack.frames.size(); ++i) {
            std::cout << fmt::format("  #{:<2} {}\n", i, stack.frames[i].text);
        }
        if (stack.frames.empty()) {
            std::cout << "  no stack: it waits for a device and does not stop\n";
        }
    }
}

void PrintJson(const std::vector<Stack> &stacks) {
    for (const Stack &stack : stacks) {
        std::vector<std::string> functions;
        std::ranges::transform(stack.frames, std::back_inserter(functions), &Frame::text);
        std::cout << Json{{"thread", stack.thread},
                          {"name", stack.name},
                          {"held_up_us", stack.heldUpUs},
                          {"functions", functions}}
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

void AddSample(const std::vector<Stack> &stacks, Node &root) {
    for (const Stack &stack : stacks) {
        std::vector<std::string> names;
        std::ranges::transform(stack.frames, std::back_inserter(names), &Frame::name);
        names.push_back(stack.name);
        root.Add(names);
    }
}

// Ends early when it is interrupted, or the process has ended: what was seen until then is not lost.
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
    } catch (const Failure &failure) {
        if (root.samples == 0) {
            throw;
        }
        progress.Hide();
        std::cerr << "tarnctl: " << host::LineOfText(failure.what()) << "; what was seen until then:\n";
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

void AddStack(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("stack", "What the threads of a process are doing: their call stacks",
                    {"stack worker", "stack 4711 -t 4713", "stack worker --all --samples 50 --every 20ms",
                     "stack worker --samples 200 --folded >worker.folded"});
    task.Operand(kProcess, options->process, kProcessHelp).Required();
    const Parameter thread = task.Option("-t", options->thread, "TID", "This thread; default the process's first");
    task.Flag("--all", options->all, "All threads").Excludes(thread);
    task.Option("--samples", options->samples, "N",
                "So many times, as a tree with the share of each function; [libm.so.6] is what has no symbol in it")
        .Range(1U, 100'000U);
    task.Option("--every", options->every, "TIME", "Time between two samples, in ms without a unit; default 100ms");
    task.Flag("--folded", options->folded, "The samples as lines for flame graphs, \"main;work;spin 12\"");
    task.Flag("--json", options->json, "For programs: an object a line, for each thread or way that was seen");
    task.Run([&globals, options] { ShowStack(globals, *options); });
}

} // namespace ctl
