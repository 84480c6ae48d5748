#include "host/serve/serve.h"

#include <cstdlib>
#include <iostream>
#include <map>

#include "host/osal/streams.h"

namespace host {

namespace {

std::string CheckNotEmpty(const std::string &text) {
    return text.empty() ? "found nothing, expected a directory" : "";
}

std::string CheckLimit(const std::string &text) {
    try {
        Limits scratch;
        SetLimit(scratch, text);
        return "";
    } catch (const std::invalid_argument &error) {
        return error.what();
    }
}

// In the program's own words: the parser's would show how it keeps the levels.
void SetLevel(spdlog::level::level_enum &level, const std::string &name) {
    static const std::map<std::string, spdlog::level::level_enum> kLevels{{"debug", spdlog::level::debug},
                                                                          {"info", spdlog::level::info},
                                                                          {"warning", spdlog::level::warn},
                                                                          {"error", spdlog::level::err}};
    const auto found = kLevels.find(name);
    if (found == kLevels.end()) {
        throw CLI::ValidationError("--log-level",
                                   fmt::format("found {}, expected debug, info, warning or error", name));
    }
    level = found->second;
}

} // namespace

void Declare(CLI::App &app, ServeOptions &options) {
    app.add_option("--run-dir", options.runDir, "Directory of the sockets [$TARN_RUN_DIR, or /run/tarn]")
        ->option_text("DIR")
        ->check(CheckNotEmpty);
    app.add_option("--state-dir", options.stateDir,
                   "Directory of what is kept beyond a restart [none: nothing is kept]")
        ->option_text("DIR")
        ->check(CheckNotEmpty);
    app.add_option("--limit", options.limits, "A limit, of those that \"tarnctl stats\" shows; may be repeated")
        ->option_text("NAME=VALUE")
        ->check(CheckLimit)
        ->allow_extra_args(false);
    app.add_option("--policy", options.policy, "File that says who may call what [the same user and root]")
        ->option_text("FILE");
    app.add_option_function<std::string>(
           "--log-level", [&options](const std::string &name) { SetLevel(options.logLevel, name); },
           WithDefault("debug, info, warning or error", spdlog::level::to_string_view(options.logLevel)))
        ->option_text("LEVEL");
}

std::optional<int> Parse(CLI::App &app, int argc, char **argv) {
    OccupyClosedStreams();
    app.set_version_flag("--version", app.get_name() + " " TARN_VERSION, "Print the version and exit");
    try {
        app.parse(argc, argv);
        return {};
    } catch (const CLI::Success &request) {
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        std::cerr << fmt::format("{0}: {1} ({0} --help says more)\n", app.get_name(), error.what());
        return kBadUsage;
    }
}

ServerOptions ServerOptionsOf(const ServeOptions &options) {
    ServerOptions server{.runDir = options.runDir};
    for (const std::string &limit : options.limits) {
        SetLimit(server.limits, limit);
    }
    if (!options.policy.empty()) {
        server.policy = Policy::Load(options.policy);
    }
    return server;
}

sigset_t BlockSignals(std::initializer_list<int> numbers) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : numbers) {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

bool IsIgnored(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

void StopOrExit(Server &server) {
    if (!server.Stop()) {
        Log().error("a request is still being worked on: cut off");
        std::_Exit(1);
    }
}

} // namespace host
