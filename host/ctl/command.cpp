#include "host/ctl/command.h"

#include <optional>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>

namespace ctl {

Parameter Parameter::Required() const {
    return Parameter(option_->required());
}

Parameter Parameter::Needs(Parameter other) const {
    return Parameter(option_->needs(other.option_));
}

Parameter Parameter::Excludes(Parameter other) const {
    return Parameter(option_->excludes(other.option_));
}

Parameter Parameter::Range(uint64_t least, uint64_t most) const {
    return Parameter(option_->check(CLI::Range(least, most)));
}

Parameter Parameter::OneOf(const std::vector<std::string> &words) const {
    return Parameter(option_->check(CLI::IsMember(words)));
}

Parameter Parameter::SplitAt(char separator) const {
    return Parameter(option_->delimiter(separator));
}

Command Command::Add(const char *name, const char *sentence, std::initializer_list<const char *> examples) const {
    CLI::App *const command = app_->add_subcommand(name, sentence);
    if (examples.size() != 0) {
        command->footer(fmt::format("Examples:\n  tarnctl {}", fmt::join(examples, "\n  tarnctl ")));
    }
    return Command(*command);
}

void Command::Hide() const {
    app_->group("");
}

template <class Value>
Parameter Command::Operand(const char *name, Value &value, const std::string &help) const {
    return Parameter(app_->add_option(name, value, help)->option_text(" "));
}

template <class Value>
Parameter Command::Option(const char *name, Value &value, const char *valueName, const std::string &help) const {
    return Parameter(app_->add_option(name, value, help)->option_text(valueName));
}

template Parameter Command::Operand(const char *, std::string &, const std::string &) const;
template Parameter Command::Operand(const char *, std::vector<std::string> &, const std::string &) const;
template Parameter Command::Option(const char *, std::string &, const char *, const std::string &) const;
template Parameter Command::Option(const char *, uint32_t &, const char *, const std::string &) const;
template Parameter Command::Option(const char *, uint64_t &, const char *, const std::string &) const;
template Parameter Command::Option(const char *, std::optional<uint32_t> &, const char *, const std::string &) const;
template Parameter Command::Option(const char *, std::optional<uint64_t> &, const char *, const std::string &) const;
template Parameter Command::Option(const char *, std::vector<std::string> &, const char *, const std::string &) const;

Parameter Command::Flag(const char *name, bool &value, const std::string &help) const {
    return Parameter(app_->add_flag(name, value, help));
}

Parameter Command::Flag(const char *name, std::string &value, const std::string &help) const {
    return Parameter(app_->add_flag(name, value, help));
}

bool Command::Has(const char *option) const {
    return app_->count(option) != 0;
}

void Command::Run(const std::function<void()> &command) const {
    app_->callback(command);
}

} // namespace ctl
