#include "host/ctl/completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <set>

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/process.h"
#include "host/ctl/settings.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/stated.h"

namespace ctl {

using namespace host::describe;

namespace {

using Names = std::vector<std::string>;

constexpr char kFiles[] = ":files", kDirectories[] = ":directories";

bool TakesValue(const CLI::Option &option) {
    return option.get_items_expected_max() > 0;
}

const CLI::App *FindCommand(const CLI::App &app, const std::string &name) {
    const auto commands = app.get_subcommands([&name](const CLI::App *command) { return command->get_name() == name; });
    return commands.empty() ? nullptr : commands.front();
}

// A command line up to the word that is completed.
class Line {
public:
    Line(const CLI::App &app, const Names &words) : app_(app), words_(words) {
        for (size_t i = 0; i + 1 < words.size(); ++i) {
            Take(words[i]);
        }
    }

    const std::string &Word() const { return words_.back(); }
    const CLI::App *Command() const { return command_; }
    const CLI::Option *Awaited() const { return awaited_; } // the option whose value comes next
    const Names &Operands() const { return operands_; }

    // The operand that comes next; the last one takes all that follow, where it takes several.
    const CLI::Option *Operand() const {
        size_t at = operands_.size();
        for (const CLI::Option *option : command_->get_options()) {
            if (option->get_positional() && (at-- == 0 || option->get_items_expected_max() > 1)) {
                return option;
            }
        }
        return nullptr;
    }

    // Of the command and of the whole program.
    const CLI::Option *OptionOf(const std::string &spelling) const {
        for (const CLI::App *app : {command_, &app_}) {
            for (const CLI::Option *option : app == nullptr ? std::vector<const CLI::Option *>() : app->get_options()) {
                if (std::ranges::count(Spellings(*option), spelling) != 0) {
                    return option;
                }
            }
        }
        return nullptr;
    }

    Names Options() const {
        Names names;
        for (const CLI::App *app : {command_, &app_}) {
            for (const CLI::Option *option : app == nullptr ? std::vector<const CLI::Option *>() : app->get_options()) {
                for (const std::string &name : Spellings(*option)) {
                    if (std::ranges::count(names, name) == 0) {
                        names.push_back(name);
                    }
                }
            }
        }
        return names;
    }

    std::string ValueOf(const std::string &spelling) const {
        const auto found = std::ranges::find(words_, spelling);
        return words_.end() - found > 1 ? *(found + 1) : "";
    }

private:
    void Take(const std::string &word) {
        if (awaited_ != nullptr) {
            awaited_ = nullptr;
        } else if (word.starts_with('-') && word.size() > 1) {
            const CLI::Option *const option = OptionOf(word);
            awaited_ = option != nullptr && TakesValue(*option) ? option : nullptr;
        } else if (command_ == nullptr) {
            command_ = FindCommand(app_, word);
        } else {
            operands_.push_back(word);
        }
    }

    const CLI::App &app_;
    const Names &words_;
    const CLI::App *command_ = nullptr;
    const CLI::Option *awaited_ = nullptr;
    Names operands_;
};

// ---- What can be offered ----

Names MethodNames() {
    Names names;
    for (const Method &method : Methods()) {
        names.emplace_back(method.name);
    }
    return names;
}

Names TypeNames() {
    Names names;
    for (const Type &type : Types()) {
        names.emplace_back(type.name);
    }
    return names;
}

Names ServiceNames() {
    return {Services().begin(), Services().end()};
}

Names Joined(Names names, const Names &more) {
    names.insert(names.end(), more.begin(), more.end());
    return names;
}

Names CommandNames(const CLI::App &app) {
    Names names;
    for (const CLI::App *command : app.get_subcommands(IsForPeople)) {
        names.push_back(command->get_name());
    }
    return names;
}

// A description says in quotes which words can stand there: "\"show N\" for one, \"list\" for all".
Names QuotedWords(const std::string &description) {
    Names names;
    for (size_t at = description.find('"'); at != description.npos; at = description.find('"', at + 1)) {
        const size_t end = std::min(description.find('"', at + 1), description.size());
        const std::string quoted = description.substr(at + 1, end - at - 1);
        names.push_back(quoted.substr(0, quoted.find(' ')));
        at = end;
    }
    return names;
}

// The member of a nested record that a path leads to; null when there is none.
const host::meaning::Member *FindPath(const host::meaning::Record *record, const std::string &path) {
    const size_t dot = path.find('.');
    const auto *const member = FindMember(*record, path.substr(0, dot));
    const auto *const inside = member == nullptr ? nullptr : InsideOf(*record, *member);
    return dot == path.npos ? member : inside == nullptr ? nullptr : FindPath(inside, path.substr(dot + 1));
}

Names ValuesOf(const host::meaning::Value &value) {
    if (value.kind == host::meaning::Kind::kSwitch) {
        return {"off", "on"};
    }
    Names names;
    for (const host::meaning::Choice &one : value.choices) {
        names.emplace_back(one.name);
    }
    return names;
}

// "begins-at=", or the values of a member behind its name.
Names RecordWords(const host::meaning::Record *record, const std::string &word) {
    if (record == nullptr) {
        return {};
    }
    Names offered;
    const size_t sign = word.find('=');
    if (sign == word.npos) {
        for (const std::string &member : StatedNames(*record)) {
            offered.push_back(member + "=");
        }
    } else if (const auto *const member = FindPath(record, word.substr(0, sign))) {
        for (const std::string &value : ValuesOf(member->value)) {
            offered.push_back(word.substr(0, sign + 1) + value);
        }
    }
    return offered;
}

Names RequestWords(const std::string &methodName, const std::string &word) {
    const Method *const method = FindMethod(methodName);
    return method == nullptr ? Names() : RecordWords(method->meaning->request, word);
}

Names AgentPids(const Globals &globals) {
    Names names;
    for (const uint32_t pid : host::Client({.runDir = globals.runDir}).Agents()) {
        names.push_back(std::to_string(pid));
    }
    return names;
}

// The names of all that run, and of their agents; their ids where a digit was typed. Quiet where nobody answers.
Names ProcessNames(const Globals &globals, const std::string &word) {
    std::set<std::string> names;
    try {
        Server server(globals);
        for (const Process &process : AllProcesses(server)) {
            names.insert(word.empty() || word.front() < '0' || word.front() > '9' ? process.name
                                                                                  : std::to_string(process.pid));
        }
        for (const Process &agent : Agents(server)) {
            names.insert(agent.name);
        }
    } catch (const Failure &) {
        // an unfinished line is no place for it
    }
    return {names.begin(), names.end()};
}

// Of those that have ever said that they are there. Quiet where no server answers.
Names DeviceNames(const Globals &globals) {
    Names names;
    try {
        Fleet fleet(globals);
        std::ranges::transform(Hellos(fleet, "*"), std::back_inserter(names), &Hello::device);
    } catch (const Failure &) {
        // an unfinished line is no place for it
    }
    return names;
}

// So that its processes are offered.
std::unique_ptr<Device> Reach(Globals &globals, const std::string &name) {
    try {
        auto device = name.empty() ? nullptr : std::make_unique<Device>(globals, name);
        globals.runDir = device == nullptr ? globals.runDir : device->RunDir().string();
        return device;
    } catch (const Failure &) {
        return nullptr;
    }
}

// What follows the first word of a task's.
std::optional<Names> OfferBehind(const std::string &command, const Line &line) {
    const Names &words = line.Operands();
    const std::string first = words.empty() ? "" : words.front();
    if (first == "set") {
        return command == "rules" ? RequestWords("UpdateMsgCtrlRuleTarnd", line.Word()) : SettingWords(line.Word());
    }
    if (first == "call") {
        return words.size() == 1 ? MethodNames() : RequestWords(words[1], line.Word());
    }
    return first == "use" ? std::optional(Contexts()) : std::nullopt;
}

// Of an operand or an option's value, by what help calls it.
Names OfferFor(const CLI::Option &option, const Line &line, const Globals &globals) {
    const std::string name = option.get_positional() ? option.get_single_name() : option.get_option_text();
    const std::string &word = line.Word();
    const std::string command = line.Command() == nullptr ? "" : line.Command()->get_name();
    if (name == "METHOD") {
        return MethodNames();
    }
    if (name == "TYPE") {
        return TypeNames();
    }
    if (name == "NAME") {
        return Joined(MethodNames(), TypeNames());
    }
    if (name == "WORD" || name == "SERVICE") {
        return ServiceNames();
    }
    if (name == "TASK") {
        return CommandNames(*line.Command()->get_parent());
    }
    if (name == "PROCESS" || name == "PATTERN") {
        return ProcessNames(globals, word);
    }
    if (name == "PID") {
        return AgentPids(globals);
    }
    if (name == "DEVICE" || name == "DEVICES") {
        return DeviceNames(globals);
    }
    if (name == "FILE" || ((name == "REQUEST" || name == "RECORD") && word.starts_with('@'))) {
        return {kFiles};
    }
    if (name == "DIR") {
        return {kDirectories};
    }
    if (name == "REQUEST") {
        return RequestWords(line.Operands().front(), word);
    }
    if (name == "RECORD") {
        const Type *const type = FindType(line.Operands().front());
        return type == nullptr ? Names() : RecordWords(MeaningOf(*type), word);
    }
    if (const auto behind = name == "WHAT" ? OfferBehind(command, line) : std::nullopt) {
        return *behind;
    }
    const bool isFirst = line.Operands().empty();
    Names names = isFirst || !option.get_positional() ? QuotedWords(option.get_description()) : Names();
    return command == "crashes" && isFirst ? Joined(names, ProcessNames(globals, word)) : names;
}

Names Offer(const CLI::App &app, const Line &line, const Globals &globals) {
    if (line.Awaited() != nullptr) {
        return OfferFor(*line.Awaited(), line, globals);
    }
    if (line.Word().starts_with('-')) {
        return line.Options();
    }
    if (line.Command() == nullptr) {
        return CommandNames(app);
    }
    const CLI::Option *const operand = line.Operand();
    return operand == nullptr ? Names() : OfferFor(*operand, line, globals);
}

// ---- The shells' scripts ----

// "=" and ":" are words of their own to most bashes, which replace what is behind them only.
constexpr char kBash[] = R"bash(# bash completion of tarnctl, as "tarnctl completion bash" writes it
_tarnctl() {
    local line=${COMP_LINE:0:COMP_POINT} words offer i
    read -ra words <<<"$line"
    [[ $line != *[[:blank:]] ]] || words+=('')
    local word=${words[-1]}
    mapfile -t offer < <("${words[0]}" complete -- "${words[@]:1}" 2>/dev/null)
    case ${offer[0]-} in
    :files)
        compopt -o filenames 2>/dev/null
        local sign=${word%%[!@]*}
        mapfile -t offer < <(compgen -P "$sign" -f -- "${word#@}")
        ;;
    :directories)
        compopt -o filenames 2>/dev/null
        mapfile -t offer < <(compgen -d -- "$word")
        ;;
    *=) compopt -o nospace 2>/dev/null ;;
    esac
    local breaks=${COMP_WORDBREAKS//[!=:]/} behind=''
    [[ -z $breaks ]] || behind=${word%"${word##*["$breaks"]}"}
    for i in "${!offer[@]}"; do
        COMPREPLY[i]=${offer[i]#"$behind"}
    done
}
complete -F _tarnctl tarnctl
)bash";

constexpr char kZsh[] = R"zsh(#compdef tarnctl
# zsh completion of tarnctl, as "tarnctl completion zsh" writes it
_tarnctl() {
    local -a offer
    offer=(${(f)"$($words[1] complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)"})
    case $offer[1] in
    :files) compset -P @; _files ;;
    :directories) _files -/ ;;
    *=) compadd -S '' -- $offer ;;
    *) compadd -- $offer ;;
    esac
}
if [[ $funcstack[1] == _tarnctl ]]; then
    _tarnctl "$@"
else
    compdef _tarnctl tarnctl
fi
)zsh";

constexpr char kFish[] = R"fish(# fish completion of tarnctl, as "tarnctl completion fish" writes it
function __tarnctl
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l offer ($words[1] complete -- $words[2..-1] "$word" 2>/dev/null)
    switch "$offer[1]"
        case :files
            set -l sign (string match -r '^@' -- "$word")
            __fish_complete_path (string replace -r '^@' '' -- "$word") | string replace -r '^' "$sign"
        case :directories
            __fish_complete_directories "$word"
        case '*'
            string join \n -- $offer
    end
end
complete -c tarnctl -f -a '(__tarnctl)'
)fish";

} // namespace

std::vector<std::string> Spellings(const CLI::Option &option) {
    Names names;
    for (const std::string &name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string &name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

void Complete(const CLI::App &app, const Globals &globals, const std::vector<std::string> &words) {
    if (words.empty()) {
        return;
    }
    const Line line(app, words);
    Globals there = globals;
    there.runDir = line.ValueOf("--run-dir").empty() ? globals.runDir : line.ValueOf("--run-dir");
    there.fleet = line.ValueOf("--fleet").empty() ? globals.fleet : line.ValueOf("--fleet");
    const auto device = Reach(there, line.ValueOf("--device"));
    for (const std::string &name : Offer(app, line, there)) {
        if (name.starts_with(':') || name.starts_with(line.Word())) {
            std::cout << name << "\n";
        }
    }
}

void WriteCompletion(const std::string &shell) {
    if (shell != "bash" && shell != "zsh" && shell != "fish") {
        throw Failure(kUsage, fmt::format("found {}, expected a shell: bash, zsh, fish", shell));
    }
    std::cout << (shell == "bash" ? kBash : shell == "zsh" ? kZsh : kFish);
}

} // namespace ctl
