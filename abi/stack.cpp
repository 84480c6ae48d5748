// How much stack the library's functions take, callees included: `stack_depth BUDGET OBJECT...` reads the call graphs
// that the compiler wrote next to the library's objects, and fails when the deepest path passes the budget.
//
// It is an upper bound. Functions that call each other count as often as tables nest, which is how deep the codecs
// recurse. A call through a pointer counts as the deepest function that the library calls so itself: a release, or the
// call of a daemon's method. What the platform's functions take is not counted.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#define VELTO_ON_TABLE(type) [[maybe_unused]] static const bool kSeen_##type = Nests(kNesting<Tarn_sys_diag_##type>);
#include "velto/describe.h"

namespace {

// How many tables a table of a type has above each other, itself counted.
template <class Value>
constexpr size_t kNesting = 0;
template <velto::Described Record>
constexpr size_t kNesting<Record> = [] {
    size_t most = 0;
    velto::EachSlot<Record>([&]<class Slot, size_t>() { most = std::max(most, kNesting<typename Slot::Element>); });
    return most + 1;
}();

size_t deepestNesting = 0;

bool Nests(size_t tables) {
    deepestNesting = std::max(deepestNesting, tables);
    return true;
}

} // namespace

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace {

const std::string kIndirect = "__indirect_call";

struct Function {
    size_t frame = 0;
    std::set<std::string> callees;
};

// The text between `start` and the next quote, or nothing.
std::string Quoted(const std::string &line, const std::string &start) {
    const size_t at = line.find(start + "\"");
    if (at == line.npos) {
        return "";
    }
    const size_t first = at + start.size() + 1;
    return line.substr(first, line.find('"', first) - first);
}

class CallGraph {
public:
    void Read(const std::string &path) {
        std::ifstream stream(path);
        if (!stream) {
            throw std::runtime_error(path + ": can't be read, expected a call graph of -fcallgraph-info=su");
        }
        for (std::string line; std::getline(stream, line);) {
            if (line.starts_with("node:")) {
                ReadNode(line);
            } else if (line.starts_with("edge:")) {
                functions_[Quoted(line, "sourcename: ")].callees.insert(Quoted(line, "targetname: "));
            }
        }
    }

    // Finds every function's depth, twice: what is called through pointers must be known first.
    void Measure() {
        FindDepths();
        for (const auto &[name, depth] : depths_) {
            if (name.find("_free_unpacked") != name.npos || name.find("_FUN") != name.npos) {
                functions_[kIndirect].frame = std::max(functions_[kIndirect].frame, depth);
            }
        }
        FindDepths();
    }

    std::string Deepest() const {
        return std::max_element(depths_.begin(), depths_.end(),
                                [](const auto &left, const auto &right) { return left.second < right.second; })
            ->first;
    }
    size_t Depth(const std::string &name) const { return depths_.at(name); }
    size_t Num() const { return functions_.size(); }

    void Print(std::string name) const {
        while (!name.empty()) {
            printf("%8zu  frame %5zu  %s\n", depths_.at(name), functions_.at(name).frame,
                   name.substr(name.rfind('/') + 1).c_str());
            const auto next = next_.find(name);
            name = next == next_.end() ? "" : next->second;
        }
    }

private:
    void ReadNode(const std::string &line) {
        const std::string label = Quoted(line, "label: ");
        Function &function = functions_[Quoted(line, "title: ")];
        const size_t bytes = label.find(" bytes (");
        if (bytes == label.npos) {
            return; // defined elsewhere
        }
        if (label.ends_with("(dynamic)")) {
            throw std::runtime_error(label + ": expected a frame whose size the compiler knows");
        }
        const size_t start = label.rfind("\\n", bytes) + 2;
        function.frame = std::stoul(label.substr(start, bytes - start));
    }

    void FindDepths() {
        depths_.clear();
        next_.clear();
        order_.clear();
        for (const auto &[name, function] : functions_) {
            Visit(name);
        }
    }

    struct State {
        size_t index;
        size_t low;
        bool open;
    };

    // Tarjan's search: a group of functions that call each other is complete when its first member is left, and what it
    // calls has been measured by then.
    void Visit(const std::string &name) {
        if (depths_.contains(name) || order_.contains(name)) {
            return;
        }
        State &state = order_.emplace(name, State{order_.size(), order_.size(), true}).first->second;
        stack_.push_back(name);
        for (const std::string &callee : functions_[name].callees) {
            Visit(callee);
            if (const State &other = order_.at(callee); other.open) {
                state.low = std::min(state.low, other.low);
            }
        }
        if (state.low == state.index) {
            const auto first = std::find(stack_.begin(), stack_.end(), name);
            MeasureGroup({first, stack_.end()});
            stack_.erase(first, stack_.end());
        }
    }

    void MeasureGroup(const std::vector<std::string> &group) {
        const std::set<std::string> members(group.begin(), group.end());
        size_t frames = 0, below = 0;
        std::string next;
        bool recursive = group.size() > 1;
        for (const std::string &name : group) {
            frames += functions_[name].frame;
            for (const std::string &callee : functions_[name].callees) {
                if (members.contains(callee)) {
                    recursive = true;
                } else if (depths_.at(callee) >= below) {
                    below = depths_.at(callee);
                    next = callee;
                }
            }
        }
        for (const std::string &name : group) {
            order_.at(name).open = false;
            depths_[name] = frames * (recursive ? deepestNesting : 1) + below;
            if (!next.empty()) {
                next_[name] = next;
            }
        }
    }

    std::map<std::string, Function> functions_;
    std::map<std::string, size_t> depths_;    // of the stack, with all that is called
    std::map<std::string, std::string> next_; // the callee on the deepest path
    std::map<std::string, State> order_;      // of the search
    std::vector<std::string> stack_;
};

int Run(size_t budget, const std::vector<std::string> &objects) {
    CallGraph graph;
    for (const std::string &object : objects) {
        graph.Read(object.substr(0, object.rfind('.')) + ".ci");
    }
    graph.Measure();
    const std::string deepest = graph.Deepest();
    if (graph.Depth(deepest) == 0) {
        throw std::runtime_error("no function has a frame: are these call graphs of the library?");
    }
    graph.Print(deepest);
    printf("%zu functions, tables nest %zu deep, %zu bytes of stack, budget %zu\n", graph.Num(), deepestNesting,
           graph.Depth(deepest), budget);
    return graph.Depth(deepest) <= budget ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s BUDGET OBJECT...\n", argv[0]);
        return 2;
    }
    try {
        return Run(std::stoul(argv[1]), {argv + 2, argv + argc});
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 2;
    }
}
