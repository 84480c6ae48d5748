#include "host/serve/serve.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <utility>

#include <CLI/CLI.hpp>

#include "host/osal/streams.h"
#include "host/runtime/directory.h"

namespace host {

namespace {

std::string CheckNotEmpty(const std::string &text) {
    return text.empty() ? "found nothing, expected a directory" : "";
}

std::string CheckFile(const std::string &text) {
    return text.empty() ? "found nothing, expected a file" : "";
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

constexpr std::pair<const char *, LogLevel> kLevels[] = {{"debug", LogLevel::kDebug},
                                                         {"info", LogLevel::kInfo},
                                                         {"warning", LogLevel::kWarning},
                                                         {"error", LogLevel::kError}};

const char *NameOf(LogLevel level) {
    return std::ranges::find(kLevels, level, &std::pair<const char *, LogLevel>::second)->first;
}

// In the program's own words: the parser's would show how it keeps the levels.
void SetLevel(LogLevel &level, const std::string &name) {
    const auto found = std::ranges::find(kLevels, name, &std::pair<const char *, LogLevel>::first);
    if (found == std::end(kLevels)) {
        throw CLI::ValidationError("--log-level",
                                   fmt::format("found {}, expected debug, info, warning or error", name));
    }
    level = found->second;
}

} // namespace

CommandLine::CommandLine(const char *name, const char *description)
    : app_(std::make_unique<CLI::App>(description, name)) {}

CommandLine::~CommandLine() = default;

void CommandLine::Operand(const char *name, std::string &value, const std::string &help) {
    app_->add_option(name, value, help)->required()->option_text(" ");
}

void CommandLine::Flag(const char *name, bool &value, const std::string &help) {
    app_->add_flag(name, value, help);
}

void CommandLine::Option(const char *name, std::string &value, const char *valueName, const std::string &help,
                         const Check &check) {
    CLI::Option *const option = app_->add_option(name, value, help)->option_text(valueName);
    if (check) {
        option->check(check);
    }
}

void CommandLine::Option(const char *name, std::optional<std::string> &value, const char *valueName,
                         const std::string &help) {
    app_->add_option(name, value, help)->option_text(valueName);
}

void CommandLine::Option(const char *name, uint64_t &value, const char *valueName, const std::string &help) {
    app_->add_option(name, value, help)->option_text(valueName);
}

void CommandLine::Option(const char *name, uint32_t &value, Range range, const char *valueName,
                         const std::string &help) {
    app_->add_option(name, value, help)->check(CLI::Range(range.least, range.most))->option_text(valueName);
}

void CommandLine::Repeated(const char *name, std::vector<std::string> &values, const char *valueName,
                           const std::string &help, const Check &check) {
    app_->add_option(name, values, help)->option_text(valueName)->check(check)->allow_extra_args(false);
}

void CommandLine::List(const char *name, std::vector<std::string> &values, const char *valueName,
                       const std::string &help, const Check &check) {
    app_->add_option(name, values, help)->option_text(valueName)->check(check);
}

void CommandLine::LogLevelOption(const char *name, LogLevel &level) {
    app_->add_option_function<std::string>(
            name, [&level](const std::string &text) { SetLevel(level, text); },
            WithDefault("debug, info, warning or error", NameOf(level)))
        ->option_text("LEVEL");
}

std::optional<int> CommandLine::Parse(int argc, char **argv) {
    OccupyClosedStreams();
    app_->set_version_flag("--version", app_->get_name() + " " TARN_VERSION, "Print the version and exit");
    try {
        app_->parse(argc, argv);
        return {};
    } catch (const CLI::Success &request) {
        return app_->exit(request);
    } catch (const CLI::ParseError &error) {
        std::cerr << fmt::format("{0}: {1} ({0} --help says more)\n", app_->get_name(), error.what());
        return kBadUsage;
    }
}

void Declare(CommandLine &line, ServeOptions &options) {
    line.Option("--run-dir", options.runDir, "DIR", "Directory of the sockets [$TARN_RUN_DIR, or /run/tarn]",
                CheckNotEmpty);
    line.Option("--state-dir", options.stateDir, "DIR",
                "Directory of what is kept beyond a restart [none: nothing is kept]", CheckNotEmpty);
    line.Repeated("--limit", options.limits, "NAME=VALUE",
                  "A limit, of those that \"tarnctl stats\" shows; may be repeated", CheckLimit);
    line.Option("--policy", options.policy, "FILE", "File that says who may call what [the same user and root]");
    line.Option(
        "--user", options.user, "USER",
        "User that root's program becomes; \"\" is root itself [$TARN_USER or tarn, where there is such a user]");
    line.Option("--log-file", options.logFile, "FILE", "File for the log, opened anew on SIGHUP [standard error]",
                CheckFile);
    line.LogLevelOption("--log-level", options.logLevel);
}

ServerOptions ServerOptionsOf(const ServeOptions &options) {
    ServerOptions server{.runDir = options.runDir, .returnsMemory = true};
    for (const std::string &limit : options.limits) {
        SetLimit(server.limits, limit);
    }
    if (!options.policy.empty()) {
        server.policy = Policy::Load(options.policy);
    }
    return server;
}

std::vector<NeededDirectory> DirectoriesOf(const ServeOptions &options) {
    using Given = NeededDirectory::Given;
    std::vector<NeededDirectory> directories;
    if (!options.stateDir.empty()) {
        directories.push_back({"state directory", options.stateDir, "--state-dir", 0700, Given::kDirectoryAndFiles});
    }
    directories.push_back(
        {"run directory", Directory(options.runDir).RunDir(), "--run-dir or TARN_RUN_DIR", 0755, Given::kDirectory});
    return directories;
}

void OpenLog(const ServeOptions &options) {
    if (!options.logFile.empty()) {
        AppendErrorsTo(options.logFile);
        FitLogToStandardError();
    }
}

} // namespace host
