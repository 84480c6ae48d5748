#include <memory>

#include "host/ctl/capture/capture.h"
#include "host/ctl/commands.h"

namespace ctl {

namespace {

const CLI::Range kPid(1U, static_cast<unsigned>(INT32_MAX));

void AddCapture(CLI::App &app, const std::string &runDir) {
    auto *const capture = app.add_subcommand("capture", "Copies of the frames that a server receives and sends");
    const auto options = std::make_shared<CaptureOptions>();
    auto *const service =
        capture->add_option("SERVICE", options->service, "Whose server; default the daemon")->option_text(" ");
    capture->add_option("--pid", options->pid, "The process whose agent is looked at instead")
        ->option_text("PID")
        ->check(kPid)
        ->excludes(service);
    capture->add_option("-o", options->output, "File to write to, in place of standard output")->option_text("FILE");
    capture->add_option("--method", options->methods, "Calls of this method only; may be given again")
        ->option_text("METHOD");
    capture->add_option("--process", options->processes, "Calls of this process only; may be given again")
        ->option_text("PID")
        ->check(kPid);
    capture->add_option("--last", options->last, "Keep this many frames, those before the end")
        ->option_text("N")
        ->check(CLI::Range(1U, 1'000'000U));
    capture->callback([options, &runDir] {
        options->runDir = runDir;
        Capture(*options);
    });
}

void AddReplay(CLI::App &app, const std::string &runDir) {
    auto *const replay = app.add_subcommand("replay", "Sends captured requests again, and compares the answers' types");
    const auto options = std::make_shared<ReplayOptions>();
    replay->add_option("FILE", options->file, "What was captured; - for standard input")->required()->option_text(" ");
    replay->add_flag("--all", options->all, "Also calls that change something");
    replay->callback([options, &runDir] {
        options->runDir = runDir;
        Replay(*options);
    });
}

} // namespace

void AddCaptures(CLI::App &app, const std::string &runDir) {
    AddCapture(app, runDir);
    app.add_subcommand("dissector", "Prints a dissector of captured frames, in Lua")->callback(WriteDissector);
    AddReplay(app, runDir);
}

} // namespace ctl
