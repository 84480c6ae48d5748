// The commands of the command line, and what they take. Its parser is known to command.cpp, to main.cpp and to
// completion.cpp alone: whatever includes it takes seconds to compile.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace ctl {

// What a command takes. A copy is the same one.
class Parameter {
public:
    explicit Parameter(CLI::Option *option) : option_(option) {}

    Parameter Required() const;
    Parameter Needs(Parameter other) const;
    Parameter Excludes(Parameter other) const;
    Parameter Range(uint64_t least, uint64_t most) const;
    Parameter OneOf(const std::vector<std::string> &words) const;
    Parameter SplitAt(char separator) const; // one word may be several values

private:
    CLI::Option *option_;
};

// A declaration is also a line of --help. A copy is the same one.
class Command {
public:
    explicit Command(CLI::App &app) : app_(&app) {}

    // A command of this one, whose help ends with the examples, a line each without "tarnctl"; where there are none,
    // with what this one's ends with now.
    Command Add(const char *name, const char *sentence, std::initializer_list<const char *> examples = {}) const;
    void Hide() const; // from help and completion

    // The values are of text, a number, an optional number, or several texts; in help, an option's is
    // called `valueName`.
    template <class Value>
    Parameter Operand(const char *name, Value &value, const std::string &help) const;
    template <class Value>
    Parameter Option(const char *name, Value &value, const char *valueName, const std::string &help) const;
    // Of text "--watch{1s}": what it is without a value.
    Parameter Flag(const char *name, bool &value, const std::string &help) const;
    Parameter Flag(const char *name, std::string &value, const std::string &help) const;

    // Whether the command line has that option.
    bool Has(const char *option) const;
    void Run(const std::function<void()> &command) const;

private:
    CLI::App *app_;
};

} // namespace ctl
