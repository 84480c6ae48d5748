#include "bench/fleet_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace bench {

pid_t StartChild(const std::function<void()> &run) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            run();
        }
        _exit(1);
    }
    return pid;
}

pid_t StartFleetServer(const std::string &directory) {
    const std::string config = directory + "/server.conf";
    std::ofstream(config) << "listen: \"127.0.0.1:-1\"\nlog_file: \"" << directory
                          << "/server.log\"\njetstream { store_dir: \"" << directory << "/streams\" }\n";
    return StartChild([&] { execl(NATS_SERVER, "nats-server", "--config", config.c_str(), nullptr); });
}

std::string UrlIn(const std::string &directory) {
    std::ifstream in(directory + "/server.log");
    const std::string log{std::istreambuf_iterator<char>(in), {}}, told = "client connections on ";
    const size_t at = log.find(told);
    if (log.find("Server is ready") == log.npos || at == log.npos) {
        throw std::runtime_error("the fleet's server is not ready");
    }
    return "nats://" + log.substr(at + told.size(), log.find('\n', at) - at - told.size());
}

std::string AwaitUrl(const std::string &directory) {
    for (int attempt = 0;; ++attempt) {
        try {
            return UrlIn(directory);
        } catch (const std::runtime_error &) {
            if (attempt == 1000) {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

} // namespace bench
