// tarnctl: looks at the interface, at messages and at services in use.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iostream>
#include <new>

#include "host/ctl/commands.h"
#include "host/ctl/completion.h"

namespace {

constexpr char kFooter[] = R"(The services are looked for in $TARN_RUN_DIR, or /run/tarn.

Exit codes:
  0  done
  1  a file cannot be read or written, or no memory
  2  usage: bad arguments; unknown method, type or field; a value that does not fit
  3  connection: no such service or agent, nobody listens, the peer went away
  4  deadline: no answer in time
  5  remote failure: the method's status, or not implemented, or the peer refused the message
  6  the message is refused: it is no well-formed message of its type)";

// "500ms", "2s", "1m"; a bare number is of seconds.
std::chrono::milliseconds ParseTime(const char *option, const std::string &text) {
    constexpr uint64_t kMost = 3'600'000;
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string unit = end;
    const uint64_t scale = unit == "ms" ? 1 : unit == "s" || unit.empty() ? 1000 : unit == "m" ? 60'000 : 0;
    if (error != std::errc() || scale == 0 || number == 0 || number > kMost / scale) {
        throw ctl::Failure(
            ctl::kUsage, fmt::format("{}: found {}, expected a time of 1ms to 60m, as 500ms, 2s or 1m", option, text));
    }
    return std::chrono::milliseconds(number * scale);
}

const CLI::Range kPid(1U, static_cast<unsigned>(INT32_MAX));

struct Arguments {
    std::string service, name, deadline, delay, shell;
    bool json = false;
    ctl::CallOptions call;
    ctl::StatsOptions stats;
    ctl::TopOptions top;
    ctl::DecodeOptions decode;
    ctl::EncodeOptions encode;
};

void AddList(CLI::App &app, Arguments &arguments) {
    auto *const list = app.add_subcommand("list", "The methods of all services, or of one");
    list->add_option("SERVICE", arguments.service, "Whose methods; default all")->option_text(" ");
    list->add_flag("--json", arguments.json, "For programs");
    list->callback([&] { ctl::List(arguments.service, arguments.json); });

    auto *const describe = app.add_subcommand("describe", "A method's or a type's fields, sizes and hash");
    describe->add_option("NAME", arguments.name, "Method, Service.Method or type")->required()->option_text(" ");
    describe->add_flag("--json", arguments.json, "For programs");
    describe->callback([&] { ctl::Describe(arguments.name, arguments.json); });
}

void AddCall(CLI::App &app, Arguments &arguments) {
    auto *const call = app.add_subcommand("call", "Calls a method and prints its reply");
    arguments.call.request = "{}";
    call->add_option("METHOD", arguments.call.method, "Method or Service.Method")->required()->option_text(" ");
    auto *const json = call->add_option("JSON", arguments.call.request,
                                        "The request: JSON, @FILE, or - for standard input; default {}")
                           ->option_text(" ");
    call->add_option("--raw", arguments.call.raw, "Send the message in this file as it is, well-formed or not")
        ->option_text("FILE")
        ->excludes(json);
    call->add_option("--pid", arguments.call.pid, "The process whose agent is called")->option_text("PID")->check(kPid);
    call->add_option("--deadline", arguments.deadline, "How long to wait: 500ms, 2s, 1m; default 5s")
        ->option_text("TIME");
    call->add_flag("--oneway", arguments.call.oneway, "Send only: neither reply nor failure comes back");
    call->add_option("--repeat", arguments.call.repeat, "Call so many times, and print how long that took")
        ->option_text("N")
        ->check(CLI::Range(1U, 1'000'000'000U));
    call->add_flag("--json", arguments.call.json, "For programs");
    call->callback([&, call] {
        if (call->count("--deadline") != 0) {
            arguments.call.deadline = ParseTime("--deadline", arguments.deadline);
        }
        ctl::Call(arguments.call);
    });
}

void AddStatus(CLI::App &app, Arguments &arguments) {
    auto *const services = app.add_subcommand("services", "The servers of the run directory and how they are");
    services->add_flag("--json", arguments.json, "For programs");
    services->callback([&] { ctl::ListServices(arguments.json); });

    auto *const stats = app.add_subcommand("stats", "What a server's methods cost, its limits and what it refused");
    auto *const service =
        stats->add_option("SERVICE", arguments.stats.service, "Whose server; default the daemon")->option_text(" ");
    stats->add_option("--pid", arguments.stats.pid, "The process whose agent is asked instead")
        ->option_text("PID")
        ->check(kPid)
        ->excludes(service);
    stats->add_flag("--json", arguments.stats.json, "For programs");
    stats->callback([&] { ctl::Stats(arguments.stats); });

    auto *const top = app.add_subcommand("top", "The busiest processes and threads, again and again; q ends it");
    top->add_option("-n", arguments.top.frames, "How often; default until q, or once when not on a terminal")
        ->option_text("N");
    top->add_option("-d", arguments.delay, "Time between: 500ms, 2s, 1m; default 1s")->option_text("TIME");
    top->callback([&, top] {
        if (top->count("-d") != 0) {
            arguments.top.delay = ParseTime("-d", arguments.delay);
        }
        ctl::Top(arguments.top);
    });
}

void AddCodec(CLI::App &app, Arguments &arguments) {
    auto *const decode = app.add_subcommand("decode", "Prints the record in a message");
    decode->add_option("TYPE", arguments.decode.type, "Of the record")->required()->option_text(" ");
    decode->add_option("FILE", arguments.decode.file, "The message, as bytes or in hex; - for standard input")
        ->required()
        ->option_text(" ");
    decode->add_flag("--json", arguments.decode.json, "For programs");
    decode->add_flag("--explain", arguments.decode.explain, "What each byte means, and why the message is refused");
    decode->callback([&] { ctl::Decode(arguments.decode); });

    auto *const encode = app.add_subcommand("encode", "Writes a record as a message, in hex to a terminal");
    encode->add_option("TYPE", arguments.encode.type, "Of the record")->required()->option_text(" ");
    encode->add_option("JSON", arguments.encode.record, "The record: JSON, @FILE, or - for standard input")
        ->required()
        ->option_text(" ");
    encode->add_flag("--fixed", arguments.encode.fixed, "In the fixed form");
    encode->add_option("-o", arguments.encode.output, "File to write to")->option_text("FILE");
    encode->callback([&] { ctl::Encode(arguments.encode); });
}

void AddCompletion(CLI::App &app, Arguments &arguments) {
    auto *const completion = app.add_subcommand("completion", "Prints the completion script of a shell");
    completion->add_option("SHELL_NAME", arguments.shell, "bash or zsh")->required()->option_text(" ");
    completion->callback([&] { ctl::WriteCompletion(app, arguments.shell); });
}

// The parser itself would only say that a command is missing.
void RequireCommand(const CLI::App &app, int argc, char **argv) {
    const std::string given = argc > 1 ? argv[1] : "";
    std::string names;
    for (const CLI::App *command : app.get_subcommands(nullptr)) {
        if (command->get_name() == given) {
            return;
        }
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    if (given.empty() || given[0] != '-') {
        throw ctl::Failure(ctl::kUsage,
                           fmt::format("found {}, expected a command: {}", given.empty() ? "nothing" : given, names));
    }
}

int Fail(int code, std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::cout.flush();
    std::cerr << "tarnctl: " << text << "\n";
    return code;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("Looks at the diagnosis services: their interface, their messages, their answers.", "tarnctl");
    app.require_subcommand(1);
    Arguments arguments;
    AddList(app, arguments);
    AddCall(app, arguments);
    AddStatus(app, arguments);
    AddCodec(app, arguments);
    AddCompletion(app, arguments);
    app.footer(kFooter); // commands made before it don't repeat it
    try {
        RequireCommand(app, argc, argv);
        app.parse(argc, argv);
    } catch (const CLI::Success &request) { // --help
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        const auto commands = app.get_subcommands();
        const std::string command = commands.empty() ? "" : commands.front()->get_name() + " ";
        return Fail(ctl::kUsage, fmt::format("{} (tarnctl {}--help says more)", error.what(), command));
    } catch (const ctl::Failure &failure) {
        return Fail(failure.Code(), failure.what());
    } catch (const std::bad_alloc &) {
        return Fail(ctl::kOther, "no memory");
    } catch (const std::exception &error) {
        return Fail(ctl::kOther, error.what());
    }
    std::cout.flush();
    return std::cout ? ctl::kDone : Fail(ctl::kOther, "cannot write to standard output");
}
