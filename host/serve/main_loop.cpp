#include "host/serve/main_loop.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>

#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "host/runtime/directory.h"
#include "host/runtime/status.h"
#include "host/serve/service_manager.h"

namespace host {

namespace {

using std::chrono::nanoseconds;

sigset_t Signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

// The next signal; 0 where none comes in time.
int AwaitSignal(const std::optional<nanoseconds> &most) {
    const sigset_t signals = Signals();
    if (!most) {
        int signal = 0;
        sigwait(&signals, &signal);
        return signal;
    }
    const auto seconds = std::chrono::floor<std::chrono::seconds>(*most);
    timespec time{};
    time.tv_sec = static_cast<time_t>(seconds.count());
    time.tv_nsec = static_cast<long>((*most - seconds).count());
    return std::max(sigtimedwait(&signals, nullptr, &time), 0);
}

// How long to wait for a signal: as long again for the server's answer leaves room for one that is lost.
std::optional<nanoseconds> Pause() {
    const auto time = service_manager::WatchdogTime();
    return time ? std::optional<nanoseconds>(*time / 4) : std::nullopt;
}

// Asks the server as any new client does: the service manager shall hear of a server that serves, not of a main thread
// that runs.
void ProveThatItWorks(const Serving &serving, nanoseconds most) {
    Client client({.runDir = serving.options.runDir});
    ServerHealth health;
    const CallOutcome outcome =
        AskHealth(client, serving.service, 0, health, std::chrono::ceil<std::chrono::milliseconds>(most));
    if (outcome.Ok() || outcome.errCode == EACCES) { // who denies it works
        service_manager::TellThatItWorks();
    } else {
        Log().error("the server does not answer, so the service manager isn't told that it works: {}", outcome.text);
    }
}

void ReadPolicy(const Serving &serving) {
    const std::string &file = serving.options.policy;
    if (file.empty()) {
        return;
    }
    std::string mistake;
    try {
        serving.server.SetPolicy(Policy::Load(file));
        Log().info("{} read again", file);
    } catch (const std::exception &error) {
        mistake = error.what();
        Log().error("{}; the policy before holds", mistake);
    }
    serving.server.NoteReload(file, mistake);
}

void ReopenLog(const Serving &serving) {
    if (serving.options.logFile.empty()) {
        return;
    }
    std::string mistake;
    try {
        OpenLog(serving.options);
    } catch (const std::exception &error) {
        mistake = error.what();
        Log().error("{}; the log goes on in the file before", mistake);
    }
    serving.server.NoteReload(serving.options.logFile, mistake);
}

std::string StatusLine(const Serving &serving) {
    return "serving in " + Directory(serving.options.runDir).RunDir().string();
}

void Reload(const Serving &serving) {
    service_manager::TellReloading();
    ReopenLog(serving);
    ReadPolicy(serving);
    if (serving.reload) {
        serving.reload();
    }
    std::string status = StatusLine(serving);
    for (const std::string &mistake : serving.server.Mistakes()) {
        status += "; " + mistake + ", what was in force before holds";
    }
    service_manager::TellReady(status);
}

void StopOrExit(Server &server) {
    if (!server.Stop()) {
        Log().error("a request is still being worked on: cut off");
        std::_Exit(1);
    }
}

} // namespace

void BlockSignals() {
    const sigset_t signals = Signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int AwaitEnd() {
    int signal = SIGHUP;
    while (signal == SIGHUP) { // there is nothing to read again
        signal = AwaitSignal({});
    }
    return signal;
}

void RunMainLoop(const Serving &serving) {
    Log().info("{}", StatusLine(serving));
    service_manager::TellReady(StatusLine(serving));
    const std::optional<nanoseconds> pause = Pause();
    for (int signal = 0; signal != SIGINT && signal != SIGTERM;) {
        signal = AwaitSignal(pause);
        if (signal == 0) {
            ProveThatItWorks(serving, *pause);
            continue;
        }
        Log().info("signal {}: {}", signal, signal == SIGHUP ? "reading files again" : "shutting down");
        if (signal == SIGHUP) {
            Reload(serving);
        }
    }
    service_manager::TellStopping();
    StopOrExit(serving.server);
}

} // namespace host
