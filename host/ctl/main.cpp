// tarnctl: looks at the interface, at messages and at services in use.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <new>
#include <set>

#include "host/ctl/capture/capture.h"
#include "host/ctl/command.h"
#include "host/ctl/commands.h"
#include "host/ctl/completion.h"
#include "host/ctl/fleet/fleet.h"
#include "host/ctl/interrupt.h"
#include "host/ctl/ssh.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"
#include "host/osal/accounts.h"
#include "host/osal/streams.h"
#include "host/osal/text.h"
#include "host/runtime/status.h"

namespace {

using ctl::Command;
using ctl::Parameter;

constexpr char kFooter[] = R"(Exit codes:
  0  done
  1  a file cannot be read or written, or no memory
  2  usage: bad arguments; an unknown method, type or member; a value that is missing or not accepted
  3  connection: no such service or agent, nobody listens, the peer went away
  4  deadline: no answer in time
  5  remote failure: a status, or a result in the reply, other than 0; the peer refused the call
  6  the message is refused: it is no well-formed message of its type)";

constexpr char kCommandFooter[] =
    "Services are looked for in --run-dir DIR, also before the command, or as tarnctl --help says.";

struct Arguments {
    ctl::Globals globals;
    std::string word, name, deadline, shell, jsonForm, task;
    std::vector<std::string> words;
    std::string host;   // taken out before
    std::string device; // empty: this machine
    std::optional<ctl::Device> reached;
    bool json = false, wire = false;
    ctl::CallOptions call;
    ctl::StatsOptions stats;
    ctl::DecodeOptions decode;
    ctl::EncodeOptions encode;
};

ctl::View ViewOf(const Arguments &arguments) {
    return arguments.wire ? ctl::View::kWire : ctl::View::kMeaning;
}

void AddList(const Command &program, Arguments &arguments) {
    const Command list = program.Add("list", "What the methods do, of all services or of one, or with a word");
    list.Operand("WORD", arguments.word, "A service; or what is in a method's name, sentence, group or members");
    list.Flag("--wire", arguments.wire, "Indices and types in place of what is meant");
    list.Flag("--json", arguments.json, "For programs, with both");
    list.Run([&] { ctl::List(arguments.globals.runDir, arguments.word, ViewOf(arguments), arguments.json); });

    const Command describe = program.Add("describe", "What a method and its members mean, or a type's members");
    describe.Operand("NAME", arguments.name, "Method, Service.Method or type").Required();
    describe.Flag("--wire", arguments.wire, "Slots, offsets, sizes and hashes in place of what is meant");
    describe.Flag("--json", arguments.json, "For programs, with both");
    describe.Run([&] { ctl::Describe(arguments.globals.runDir, arguments.name, ViewOf(arguments), arguments.json); });
}

constexpr char kNamed[] = "named";

void AddJsonForm(const Command &command, Arguments &arguments) {
    command
        .Flag("--json{wire}", arguments.jsonForm,
              "For programs, with the names of the wire; --json=named has those of what is meant")
        .OneOf({"wire", kNamed});
}

ctl::JsonForm JsonFormOf(const Arguments &arguments) {
    return arguments.jsonForm.empty()     ? ctl::JsonForm::kNone
           : arguments.jsonForm == kNamed ? ctl::JsonForm::kNamed
                                          : ctl::JsonForm::kWire;
}

void AddCall(const Command &program, Arguments &arguments) {
    const Command call = program.Add("call", "Calls a method and prints its reply");
    call.Operand("METHOD", arguments.call.method, "Method or Service.Method; with --help, what it takes").Required();
    const Parameter request = call.Operand("REQUEST", arguments.call.request,
                                           "The request: NAME=VALUE for each member, or JSON, @FILE, - for standard "
                                           "input");
    call.Option("--raw", arguments.call.raw, "FILE", "Send the message in this file as it is, well-formed or not")
        .Excludes(request);
    call.Option("--pid", arguments.call.pid, "PID", "The process whose agent is called").Range(1, INT32_MAX);
    call.Option("--deadline", arguments.deadline, "TIME",
                "How long to wait: 500ms, 2s, 1m; default " + ctl::TimeText(arguments.call.deadline));
    call.Flag("--oneway", arguments.call.oneway, "Send only: neither reply nor failure comes back");
    call.Option("--repeat", arguments.call.repeat, "N", "Call so many times, and print how long that took")
        .Range(1U, 1'000'000'000U);
    AddJsonForm(call, arguments);
    call.Run([&, call] {
        if (call.Has("--deadline")) {
            arguments.call.deadline = ctl::ParseTime("--deadline", arguments.deadline);
        }
        arguments.call.runDir = arguments.globals.runDir;
        arguments.call.quiet = arguments.globals.quiet;
        arguments.call.json = JsonFormOf(arguments);
        ctl::Call(arguments.call);
    });
}

void AddStatus(const Command &program, Arguments &arguments) {
    const Command services = program.Add("services", "The servers of the run directory and how they are");
    services.Flag("--json", arguments.json, "For programs");
    services.Run([&] { ctl::ListServices(arguments.globals.runDir, arguments.json); });

    const Command stats = program.Add("stats", "What a server's methods cost, its limits and what it refused");
    const Parameter service = stats.Operand("SERVICE", arguments.stats.service, "Whose server; default the daemon");
    stats.Option("--pid", arguments.stats.pid, "PID", "The process whose agent is asked instead")
        .Range(1, INT32_MAX)
        .Excludes(service);
    stats.Flag("--json", arguments.stats.json, "For programs");
    stats.Run([&] {
        arguments.stats.runDir = arguments.globals.runDir;
        ctl::Stats(arguments.stats);
    });
}

void AddCodec(const Command &program, Arguments &arguments) {
    const Command decode = program.Add("decode", "Prints the record in a message");
    decode.Operand("TYPE", arguments.decode.type, "Of the record").Required();
    decode.Operand("FILE", arguments.decode.file, "The message, as bytes or in hex; - for standard input").Required();
    AddJsonForm(decode, arguments);
    decode.Flag("--explain", arguments.decode.explain, "What each byte means, and why the message is refused");
    decode.Run([&] {
        arguments.decode.json = JsonFormOf(arguments);
        ctl::Decode(arguments.decode);
    });

    const Command encode = program.Add("encode", "Writes a record as a message, in hex to a terminal");
    encode.Operand("TYPE", arguments.encode.type, "Of the record").Required();
    encode
        .Operand("RECORD", arguments.encode.record,
                 "The record: NAME=VALUE for each member, or JSON, @FILE, - for standard input")
        .Required();
    encode.Flag("--fixed", arguments.encode.fixed, "In the fixed form");
    encode.Option("-o", arguments.encode.output, "FILE", "File to write to");
    encode.Run([&] { ctl::Encode(arguments.encode); });
}

void AddCompletion(const Command &program, const CLI::App &app, Arguments &arguments) {
    const Command completion = program.Add("completion", "Prints the completion script of a shell");
    completion.Operand("SHELL", arguments.shell, "\"bash\", \"zsh\" or \"fish\"").Required();
    completion.Run([&] { ctl::WriteCompletion(arguments.shell); });

    // Asked by those scripts.
    const Command complete = program.Add("complete", "What the last of the words can be");
    complete.Hide();
    complete.Operand("WORDS", arguments.words, "");
    complete.Run([&] { ctl::Complete(app, arguments.globals, arguments.words); });
}

int Fail(int code, const std::string &text) {
    std::cout.flush();
    std::cerr << "tarnctl: " << host::LineOfText(text) << "\n";
    return code;
}

void AddTasks(const Command &program, const ctl::Globals &globals) {
    for (const auto add :
         {ctl::AddPs, ctl::AddTop, ctl::AddStack, ctl::AddMem, ctl::AddLeaks, ctl::AddCrashes, ctl::AddOverloads,
          ctl::AddEvents, ctl::AddHealth, ctl::AddWatch, ctl::AddCollect, ctl::AddExec, ctl::AddSettings,
          ctl::AddMeasure, ctl::AddRules, ctl::AddTime, ctl::AddMetrics}) {
        add(program, globals);
    }
}

// As the variable says it, for whatever the command calls.
void TrustServersOf(const std::string &user) {
    if (!host::UserIdOf(user)) {
        throw CLI::ValidationError("--server-user", fmt::format("no user \"{}\", expected a name or number", user));
    }
    setenv("TARN_USER", user.c_str(), 1);
}

std::string RunDirOf(const CLI::App &app) {
    const std::vector<std::string> runDir = app.get_option("--run-dir")->results();
    return runDir.empty() ? "" : runDir.front();
}

// Of this program, and of the daemon where it answers.
std::string Versions(const CLI::App &app) {
    constexpr std::chrono::seconds kDeadline{1};
    host::Client client({.runDir = RunDirOf(app)});
    host::ServerHealth health;
    const host::CallOutcome outcome = AskHealth(client, "TarnSysdiagTarnd", 0, health, kDeadline);
    const std::string daemon = !outcome.Ok()            ? "no answer"
                               : health.version.empty() ? "too old to tell"
                                                        : host::LineOfText(health.version);
    return "tarnctl " TARN_VERSION "\ntarnd " + daemon;
}

// Its services are where commands look for those of this machine.
void ReachDevice(Arguments &arguments) {
    if (!arguments.device.empty()) {
        arguments.reached.emplace(arguments.globals, arguments.device);
        arguments.globals.runDir = arguments.reached->RunDir();
    }
}

void AddGlobal(CLI::App &app, Arguments &arguments) {
    app.require_subcommand(1);
    app.fallthrough(); // the options of all commands may stand behind the command as well
    app.set_version_flag(
        "--version", [&app] { return Versions(app); }, "Print the versions of both ends and exit");
    app.add_option("-H,--host", arguments.host, "Run on this machine, by ssh: [USER@]HOST[:PORT]; before the command")
        ->option_text("HOST");
    app.add_option("--run-dir", arguments.globals.runDir,
                   "Directory of the services' sockets; default $TARN_RUN_DIR, or /run/tarn")
        ->option_text("DIR")
        ->check([](const std::string &text) { return text.empty() ? "found nothing, expected a directory" : ""; });
    app.add_option("--fleet", arguments.globals.fleet,
                   "Server of the fleet: tls://HOST:PORT, or nats:// on this machine; default the context in use")
        ->option_text("URL");
    app.add_option("--device", arguments.device, "Ask this device of the fleet, in place of this machine")
        ->option_text("DEVICE")
        ->excludes("--run-dir");
    app.parse_complete_callback([&app, &arguments] { // before the command runs
        if (app.count("--host") != 0) {
            throw CLI::ValidationError("--host", "expected before the command");
        }
        ReachDevice(arguments);
    });
    app.add_flag("--quiet", arguments.globals.quiet, "No progress of what takes long");
    app.add_option_function<std::string>("--server-user", TrustServersOf,
                                         "User whose servers are trusted besides root's, one's own and the directory's "
                                         "owner's; default $TARN_USER, or tarn")
        ->option_text("USER");
}

std::vector<std::string> CommandNames(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands(ctl::IsForPeople)) {
        names.push_back(command->get_name());
    }
    return names;
}

// The parser itself would only say that a command is missing.
std::string WrongCommand(const CLI::App &app, const std::string &found) {
    const std::vector<std::string> names = CommandNames(app);
    const std::string closest = host::describe::DidYouMean(found, {names.begin(), names.end()});
    return closest.empty() ? fmt::format("found {}, expected a command: {}", found, fmt::join(names, ", "))
                           : fmt::format("{}: no such command{}", found, closest);
}

void AddHelp(const Command &program, const CLI::App &app, Arguments &arguments) {
    const Command help = program.Add("help", "What a task or another command does, with examples");
    help.Operand("TASK", arguments.task, "Its name; all if not given");
    help.Run([&] {
        const auto named = [&](const CLI::App *command) {
            return arguments.task == command->get_name() && ctl::IsForPeople(command);
        };
        const auto found = app.get_subcommands(named);
        if (found.empty() && !arguments.task.empty()) {
            throw ctl::Failure(ctl::kUsage, WrongCommand(app, arguments.task));
        }
        const ctl::Output output;
        // Asked itself, the program would hand out the help of the command that was given: this one's.
        std::cout << (found.empty() ? app.get_formatter()->make_help(&app, "tarnctl", CLI::AppFormatMode::Normal)
                                    : found.front()->help("tarnctl"));
    });
}

// "call METHOD --help" is of the method.
int Help(const CLI::App &app, const CLI::Success &request) {
    const CLI::App *const call = app.get_subcommand("call");
    if (call->parsed() && call->count("METHOD") != 0 && call->count("--help") != 0) {
        ctl::Describe(RunDirOf(app), call->get_option("METHOD")->results().front(), ctl::View::kMeaning, false);
        return ctl::kDone;
    }
    return app.exit(request);
}

// Of a command, and of the whole program.
std::string WrongOption(std::initializer_list<const CLI::App *> apps, const std::string &found) {
    std::set<std::string> names;
    for (const CLI::App *app : apps) {
        for (const CLI::Option *option : app->get_options()) {
            const auto &own = option->get_lnames();
            names.insert(own.begin(), own.end());
        }
    }
    // Without what all begin with, which would make any two alike.
    const std::string wanted = found.substr(2, found.find('=') - 2);
    const std::vector<std::string> close = host::describe::ClosestNames(wanted, {names.begin(), names.end()});
    return fmt::format("{}: no such option{}", found,
                       close.empty() ? "" : fmt::format("; did you mean --{}?", fmt::join(close, ", --")));
}

int FailToParse(const CLI::App &app, const CLI::ParseError &error) {
    const auto commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : commands.front()->get_name() + " ";
    const bool noCommand = commands.empty() && dynamic_cast<const CLI::RequiredError *>(&error) != nullptr;
    std::string what = error.what();
    if (noCommand || dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr) {
        const std::vector<std::string> rest = app.remaining(true);
        const auto option = std::ranges::find_if(rest, [](const std::string &word) { return word.starts_with("--"); });
        if (option != rest.end()) {
            what = WrongOption({commands.empty() ? &app : commands.front(), &app}, *option);
        } else if (noCommand) {
            return Fail(ctl::kUsage, WrongCommand(app, rest.empty() ? "nothing" : rest.front()));
        }
    }
    return Fail(ctl::kUsage, fmt::format("{} (tarnctl {}--help says more)", what, command));
}

// What help calls an option's value, messages call so too.
void NameValues(CLI::App &app) {
    for (CLI::Option *const option : app.get_options()) {
        if (!option->get_positional() && option->get_option_text().size() > 1) {
            option->type_name(option->get_option_text());
        }
    }
    for (CLI::App *const command : app.get_subcommands({})) {
        NameValues(*command);
    }
}

// Exit code; what fails is thrown.
int Run(CLI::App &app, std::vector<std::string> arguments) {
    if (const auto host = ctl::TakeHost(arguments)) {
        return ctl::RunAt(*host, std::move(arguments));
    }
    try {
        std::ranges::reverse(arguments); // as the parser takes them
        app.parse(std::move(arguments));
        return ctl::kDone;
    } catch (const CLI::Success &request) { // --help, --version
        return Help(app, request);
    }
}

} // namespace

int main(int argc, char **argv) {
    host::OccupyClosedStreams();
    setlocale(LC_CTYPE, "C.UTF-8"); // texts are UTF-8, whatever the user's terminal has
    CLI::App app("Looks at the diagnosis services: their interface, their messages, their answers.", "tarnctl");
    const Command program(app);
    Arguments arguments;
    AddGlobal(app, arguments);
    AddTasks(program, arguments.globals);
    AddList(program, arguments);
    app.footer(kCommandFooter); // commands made after it repeat it
    AddCall(program, arguments);
    AddStatus(program, arguments);
    ctl::AddCaptures(program, arguments.globals.runDir);
    app.footer("");
    ctl::AddDevices(program, arguments.globals);
    ctl::AddFleet(program, arguments.globals);
    ctl::AddContext(program);
    AddCodec(program, arguments);
    AddCompletion(program, app, arguments);
    AddHelp(program, app, arguments);
    app.footer(kFooter);
    NameValues(app);
    int code = ctl::kDone;
    try {
        code = Run(app, {argv + std::min(argc, 1), argv + argc});
    } catch (const CLI::ParseError &error) {
        return FailToParse(app, error);
    } catch (const ctl::Failure &failure) {
        return Fail(failure.Code(), failure.what());
    } catch (const ctl::Interrupted &interrupted) {
        Fail(ctl::kOther, interrupted.what());
        ctl::EndBy(SIGINT);
    } catch (const std::bad_alloc &) {
        return Fail(ctl::kOther, "no memory");
    } catch (const std::exception &error) {
        return Fail(ctl::kOther, error.what());
    }
    std::cout.flush();
    if (!std::cout && ctl::ReaderHasGone()) { // what asks a fleet ignores the signal of that
        ctl::EndBy(SIGPIPE);
    }
    return std::cout ? code : Fail(ctl::kOther, "cannot write to standard output");
}
