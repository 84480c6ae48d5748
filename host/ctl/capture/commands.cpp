#include <memory>

#include "host/ctl/capture/capture.h"
#include "host/ctl/commands.h"
#include "host/ctl/process.h"

namespace ctl {

namespace {

void AddCapture(const Command &program, const std::string &runDir) {
    const Command capture = program.Add("capture", "Copies of the frames that a server receives and sends");
    const auto options = std::make_shared<CaptureOptions>();
    const Parameter service = capture.Operand("SERVICE", options->service, "Whose server; default the daemon");
    capture.Option("--pid", options->pid, "PID", "The process whose agent is looked at instead")
        .Range(1, INT32_MAX)
        .Excludes(service);
    capture.Option("-o", options->output, "FILE", "File to write to, in place of standard output");
    capture.Option("--method", options->methods, "METHOD", "Calls of this method only; may be given again");
    capture.Option("--process", options->processes, kProcess,
                   "Calls of processes of this id, name, pattern or agent's name only; may be given again");
    capture.Option("--last", options->last, "N", "Keep this many frames, those before the end").Range(1U, 1'000'000U);
    capture.Run([options, &runDir] {
        options->runDir = runDir;
        Capture(*options);
    });
}

void AddReplay(const Command &program, const std::string &runDir) {
    const Command replay = program.Add("replay", "Sends captured requests again, and compares the answers' types");
    const auto options = std::make_shared<ReplayOptions>();
    replay.Operand("FILE", options->file, "What was captured; - for standard input").Required();
    replay.Flag("--all", options->all, "Also calls that change something");
    replay.Run([options, &runDir] {
        options->runDir = runDir;
        Replay(*options);
    });
}

} // namespace

void AddCaptures(const Command &program, const std::string &runDir) {
    AddCapture(program, runDir);
    program.Add("dissector", "Prints a dissector of captured frames, in Lua").Run(WriteDissector);
    AddReplay(program, runDir);
}

} // namespace ctl
