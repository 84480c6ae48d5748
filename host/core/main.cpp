// tarn-core: records crashes of processes without an agent. The kernel starts it, as root, for each process that dumps
// core, with the core on its standard input; nothing that it is told or reads is to be trusted.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <iostream>

#include "host/core/pass_on.h"
#include "host/core/record.h"
#include "host/core/settings.h"
#include "host/osal/log.h"
#include "host/runtime/directory.h"
#include "host/serve/serve.h"

namespace {

constexpr const char *kRunDir = "/run/tarn";

core::Settings::Places Places() {
    core::Settings::Places places;
    // Another machine's, or a test's.
    if (const char *const root = getenv("TARN_CORE_ROOT"); root != nullptr && *root != 0) {
        for (std::filesystem::path *place : {&places.kernel, &places.state, &places.start}) {
            *place = root + place->string();
        }
    }
    return places;
}

// The kernel opens standard input only: what is logged goes to its own log.
void OpenStreams() {
    for (const char *const name : {"/dev/null", "/dev/kmsg", "/dev/null"}) {
        if (fcntl(STDOUT_FILENO, F_GETFD) >= 0 && fcntl(STDERR_FILENO, F_GETFD) >= 0) {
            return;
        }
        open(name, O_WRONLY);
    }
}

// Each step is worth taking although another fails.
template <class Step>
bool Attempt(const char *what, Step step) {
    try {
        step();
        return true;
    } catch (const std::exception &error) {
        host::Log().warn("tarn-core: {}: {}", what, error.what());
        return false;
    }
}

int TakeCore(std::span<char *const> words) {
    OpenStreams();
    signal(SIGPIPE, SIG_IGN);
    bool done = Attempt("a crash", [&] {
        const core::Crash crash(words);
        const core::CoreHead head = core::ReadHead(STDIN_FILENO);
        const bool recorded = Attempt("the record", [&] {
            host::stacks::Helpers helpers{std::filesystem::path()};
            core::Record(crash, head, host::FaultDir(kRunDir), helpers);
        });
        const bool passed = Attempt("what was configured before", [&] {
            const core::Settings settings(Places());
            if (const auto before = settings.Before()) {
                core::PassOn(core::Expand(before->pattern, settings.UsesPid(), crash), crash, head, STDIN_FILENO);
            }
        });
        if (!recorded || !passed) {
            host::Fail(EIO, fmt::format("process {} is not taken care of as it should be", crash.Pid()));
        }
    });
    return done ? 0 : 1;
}

void Show(const core::Settings &settings) {
    const core::KernelSettings now = settings.Now();
    const auto before = settings.Before();
    std::cout << "kernel.core_pattern is " << now.pattern << "\n"
              << "kernel.core_pipe_limit is " << now.pipeLimit << "\n";
    if (before) {
        std::cout << "cores are passed on to " << before->pattern << "\n";
    }
}

struct Options {
    bool install = false, remove = false;
};

int Configure(const Options &options) {
    const core::Settings settings(Places());
    if (options.install && options.remove) {
        std::cerr << "tarn-core: --install and --remove: expected one of them\n";
        return host::kBadUsage;
    }
    if (options.install && !settings.Install(std::filesystem::read_symlink("/proc/self/exe"))) {
        std::cout << "was installed already\n";
    }
    if (options.remove && !settings.Remove()) {
        std::cout << "was not installed\n";
    }
    Show(settings);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    // The words may look like options: they are of others.
    if (argc >= 2 && strcmp(argv[1], "record") == 0) {
        return TakeCore(std::span(argv + 2, static_cast<size_t>(argc) - 2));
    }
    Options options;
    host::CommandLine line("tarn-core", "Records crashes of processes without an agent, which the kernel tells it of");
    line.Flag("--install", options.install, "Have the kernel tell of crashes from now on, and after its next start");
    line.Flag("--remove", options.remove, "Have the kernel do with crashes what it did before");
    if (const auto code = line.Parse(argc, argv)) {
        return *code;
    }
    try {
        return Configure(options);
    } catch (const std::exception &error) {
        std::cerr << "tarn-core: " << error.what() << "\n";
        return 1;
    }
}
