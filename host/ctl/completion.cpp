#include "host/ctl/completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <iostream>

#include "host/ctl/commands.h"
#include "host/describe/stated.h"

namespace ctl {

namespace {

using Names = std::vector<std::string>;

bool TakesValue(const CLI::Option &option) {
    return option.get_items_expected_max() > 0;
}

bool TakesValueOfAll(const CLI::Option *option) {
    return TakesValue(*option);
}

// "--json" or "-o".
Names Spellings(const CLI::Option &option) {
    Names names;
    for (const std::string &name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string &name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

struct Command {
    std::string name, description;
    std::vector<const CLI::Option *> options, operands;

    Names AllSpellings(bool onlyOfValues) const {
        Names all;
        for (const CLI::Option *option : options) {
            if (!onlyOfValues || TakesValue(*option)) {
                const Names names = Spellings(*option);
                all.insert(all.end(), names.begin(), names.end());
            }
        }
        return all;
    }
    Names OperandNames() const {
        Names names;
        for (const CLI::Option *operand : operands) {
            names.push_back(operand->get_single_name());
        }
        return names;
    }
};

// An app or one of its commands.
Command CommandOf(const CLI::App &app) {
    Command command{app.get_name(), app.get_description(), {}, {}};
    for (const CLI::Option *option : app.get_options()) {
        (option->get_positional() ? command.operands : command.options).push_back(option);
    }
    return command;
}

// With the options of the whole program that take a value, which may stand behind a command as well.
std::vector<Command> CommandsOf(const CLI::App &app) {
    std::vector<Command> commands;
    for (const CLI::App *from : app.get_subcommands(IsForPeople)) {
        commands.push_back(CommandOf(*from));
        for (const CLI::Option *option : app.get_options(TakesValueOfAll)) {
            commands.back().options.push_back(option);
        }
    }
    return commands;
}

Names MethodNames() {
    Names names;
    for (const auto &method : host::describe::Methods()) {
        names.emplace_back(method.name);
    }
    return names;
}

Names TypeNames() {
    Names names;
    for (const auto &type : host::describe::Types()) {
        names.emplace_back(type.name);
    }
    return names;
}

// What both shells call the names by: NAME is an operand that takes a method or a type, WORD one that takes anything.
std::string Words() {
    return fmt::format("    local SERVICE='{}'\n    local METHOD='{}'\n    local TYPE='{}'\n"
                       "    local NAME=\"$METHOD $TYPE\" WORD=$SERVICE SHELL_NAME='bash zsh'\n",
                       fmt::join(host::describe::Services(), " "), fmt::join(MethodNames(), " "),
                       fmt::join(TypeNames(), " "));
}

// Where the command stands: behind options of the whole program. And where its agents are looked for.
constexpr char kBashCommand[] = R"bash(    local at=1 i run_dir=''
    while ((at < COMP_CWORD)) && [[ ${COMP_WORDS[at]} == -* ]]; do
        [[ $valued != *" ${COMP_WORDS[at]} "* ]] || ((at++))
        ((at++))
    done
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ ${COMP_WORDS[i]} != --run-dir ]] || run_dir=${COMP_WORDS[i + 1]}
    done
)bash";

constexpr char kBashEnd[] = R"bash(    local word=${COMP_WORDS[COMP_CWORD]} kind='' command=$at method=''
    if [[ $valued == *" ${COMP_WORDS[COMP_CWORD - 1]} "* ]]; then
        kind=${COMP_WORDS[COMP_CWORD - 1]}
    elif [[ $word == -* ]]; then
        kind=OPTION
    elif ((COMP_CWORD == command)); then
        kind=COMMAND
    else
        at=0
        for ((i = command + 1; i < COMP_CWORD; i++)); do
            if [[ $valued == *" ${COMP_WORDS[i]} "* ]]; then
                ((i++))
            elif [[ ${COMP_WORDS[i]} != -* ]]; then
                ((at++)) || method=${COMP_WORDS[i]}
            fi
        done
        kind=${operands[at]:-}
        ((at == 0)) || [[ ${operands[1]:-} != REQUEST ]] || kind=REQUEST # the rest
    fi
    case $kind in
    COMMAND | OPTION | SERVICE | METHOD | TYPE | NAME | WORD | SHELL_NAME) COMPREPLY=($(compgen -W "${!kind}" -- "$word")) ;;
    --pid) COMPREPLY=($(compgen -W "$(_tarnctl_pids)" -- "$word")) ;;
    --run-dir) COMPREPLY=($(compgen -d -- "$word")) ;;
    FILE | -o | --raw) COMPREPLY=($(compgen -f -- "$word")) ;;
    JSON) [[ $word != @* ]] || COMPREPLY=($(compgen -P @ -f -- "${word#@}")) ;;
    REQUEST) _tarnctl_request ;;
    esac
}
complete -F _tarnctl tarnctl
)bash";

// A member, or a value behind its name: "=" is a word of its own to most bashes.
constexpr char kBashRequest[] = R"bash(_tarnctl_request() {
    local program=${COMP_WORDS[0]} name=''
    if [[ $word == @* ]]; then
        COMPREPLY=($(compgen -P @ -f -- "${word#@}"))
        return
    elif [[ $word == '=' ]]; then
        name=${COMP_WORDS[COMP_CWORD - 1]} word=''
    elif [[ ${COMP_WORDS[COMP_CWORD - 1]} == '=' ]]; then
        name=${COMP_WORDS[COMP_CWORD - 2]}
    elif [[ $word == *=* ]]; then
        name=${word%%=*}
        COMPREPLY=($(compgen -P "$name=" -W "$("$program" complete-members "$method" "$name")" -- "${word#*=}"))
        return
    else
        compopt -o nospace 2>/dev/null
    fi
    COMPREPLY=($(compgen -W "$("$program" complete-members "$method" $name)" -- "$word"))
}
)bash";

// The same; the method is the first word that is one.
constexpr char kZshRequest[] = R"zsh(_tarnctl_request() {
    local method=${words[(r)(${(j:|:)${=METHOD}})]}
    if compset -P 1 '*='; then
        compadd -- ${(f)"$(_call_program members tarnctl complete-members $method ${IPREFIX%=})"}
    elif compset -P @; then
        _files
    else
        compadd -S '' -- ${(f)"$(_call_program members tarnctl complete-members $method)"}
    fi
}
)zsh";

// The processes with an agent.
constexpr char kPids[] = R"bash(_tarnctl_pids() {
    ls "${run_dir:-${TARN_RUN_DIR:-/run/tarn}}" 2>/dev/null | sed -n 's/^agent-\([0-9]*\)\.sock$/\1/p'
}
)bash";

void WriteBash(const Command &program, const std::vector<Command> &commands) {
    Names names;
    for (const Command &command : commands) {
        names.push_back(command.name);
    }
    std::cout << "# bash completion of tarnctl, as \"tarnctl completion bash\" writes it\n"
              << kPids << kBashRequest << "_tarnctl() {\n";
    std::cout << Words()
              << fmt::format("    local COMMAND='{}' OPTION='{}' valued=' {} ' operands=()\n", fmt::join(names, " "),
                             fmt::join(program.AllSpellings(false), " "), fmt::join(program.AllSpellings(true), " "))
              << kBashCommand << "    case ${COMP_WORDS[at]} in\n";
    for (const Command &command : commands) {
        std::cout << fmt::format("    {}) OPTION='{}' valued=' {} ' operands=({}) ;;\n", command.name,
                                 fmt::join(command.AllSpellings(false), " "),
                                 fmt::join(command.AllSpellings(true), " "), fmt::join(command.OperandNames(), " "));
    }
    std::cout << "    esac\n" << kBashEnd;
}

// Within single quotes, and within the brackets of a zsh specification.
std::string Quoted(const std::string &text) {
    std::string quoted;
    for (const char character : text) {
        quoted += character == '\'' ? "'\\''" : character == ']' ? "\\]" : std::string(1, character);
    }
    return quoted;
}

// What zsh completes a value or an operand with.
std::string ZshAction(const std::string &name) {
    if (name == "--pid") {
        return "($(_tarnctl_pids))";
    }
    if (name == "--raw" || name == "-o" || name == "FILE") {
        return "_files";
    }
    if (name == "--run-dir") {
        return "_files -/";
    }
    if (name == "REQUEST") {
        return "_tarnctl_request";
    }
    return name.starts_with('-') || name == "JSON" ? " " : "($" + name + ")";
}

void WriteZshOptions(const Command &command) {
    for (const CLI::Option *option : command.options) {
        for (const std::string &name : Spellings(*option)) {
            const std::string value = TakesValue(*option) ? fmt::format("\":value:{}\"", ZshAction(name)) : "";
            std::cout << fmt::format(" \\\n            '{}[{}]'{}", name, Quoted(option->get_description()), value);
        }
    }
}

void WriteZsh(const Command &program, const std::vector<Command> &commands) {
    std::cout << "#compdef tarnctl\n# zsh completion of tarnctl, as \"tarnctl completion zsh\" writes it\n"
              << kPids << kZshRequest << "_tarnctl() {\n"
              << Words() << "    local -a commands=(\n";
    for (const Command &command : commands) {
        std::cout << fmt::format("        '{}:{}'\n", command.name, Quoted(command.description));
    }
    std::cout << "    )\n    local run_dir=$words[$words[(i)--run-dir]+1] context state state_descr line\n"
                 "    typeset -A opt_args\n    _arguments -C";
    WriteZshOptions(program);
    std::cout << " \\\n            ': :->command' '*:: :->argument' && return\n"
                 "    if [[ $state == command ]]; then\n        _describe command commands\n        return\n    fi\n"
                 "    case $words[1] in\n";
    for (const Command &command : commands) {
        std::cout << "    " << command.name << ")\n        _arguments";
        WriteZshOptions(command);
        for (const std::string &name : command.OperandNames()) {
            const char *const rest = name == "REQUEST" ? "*" : "";
            std::cout << fmt::format(" \\\n            \"{}:{}:{}\"", rest, name, ZshAction(name));
        }
        std::cout << "\n        ;;\n";
    }
    std::cout
        << "    esac\n}\n"
           "if [[ $funcstack[1] == _tarnctl ]]; then\n    _tarnctl \"$@\"\nelse\n    compdef _tarnctl tarnctl\nfi\n";
}

// The member of a nested record that a path leads to; null when there is none.
const host::meaning::Member *FindPath(const host::meaning::Record *record, const std::string &path) {
    const size_t dot = path.find('.');
    const auto *const member = host::describe::FindMember(*record, path.substr(0, dot));
    const auto *const inside = member == nullptr ? nullptr : host::describe::InsideOf(*record, *member);
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

} // namespace

void WriteCompletion(const CLI::App &app, const std::string &shell) {
    if (shell != "bash" && shell != "zsh") {
        throw Failure(kUsage, fmt::format("found {}, expected a shell: bash, zsh", shell));
    }
    (shell == "bash" ? WriteBash : WriteZsh)(CommandOf(app), CommandsOf(app));
}

// Quiet: who completes a line has not finished it.
void CompleteMembers(const std::string &name, const std::string &path) {
    const auto *const method = host::describe::FindMethod(name);
    if (method == nullptr) {
        return;
    }
    const host::meaning::Record *const request = method->meaning->request;
    if (!path.empty()) {
        const auto *const member = FindPath(request, path);
        std::cout << fmt::format("{}\n", fmt::join(member == nullptr ? Names() : ValuesOf(member->value), "\n"));
        return;
    }
    for (const std::string &member : host::describe::StatedNames(*request)) {
        std::cout << member << "=\n";
    }
}

} // namespace ctl
