// A fleet's server of the test's own: the real one, on a free loopback port, with its streams in a scratch directory.
#pragma once

#include <unistd.h>

#include <charconv>

#include "tests/host/kit.h"

namespace kit {

constexpr char kNatsServer[] = NATS_SERVER; // a path; empty where the machine has none

class NatsServer {
public:
    // `more` is added to its configuration.
    explicit NatsServer(std::string more = "") : more_(std::move(more)) { Start(); }

    void Start() {
        std::ofstream(Config()) << "listen: \"127.0.0.1:" << (port_.empty() ? "-1" : port_) << "\"\n"
                                << "jetstream { store_dir: \"" << (dir_.Path() / "streams").string() << "\" }\n"
                                << more_ << "\n";
        process_ = std::make_unique<Process>(dir_.Path(),
                                             std::vector<std::string>{kNatsServer, "--config", Config().string()});
        ASSERT_TRUE(Await("the server is ready", [&] {
            return process_->Err().find("Server is ready") != std::string::npos;
        })) << process_->Err();
        const std::string told = "client connections on 127.0.0.1:";
        const std::string log = process_->Err();
        const size_t at = log.find(told) + told.size();
        port_ = log.substr(at, log.find_first_not_of("0123456789", at) - at);
    }
    void Kill() { process_.reset(); }
    std::string Url() const { return "nats://127.0.0.1:" + port_; }
    std::string Log() const { return process_->Err(); }
    uint32_t Pid() const { return process_->Pid(); }

private:
    std::filesystem::path Config() const { return dir_.Path() / "nats.conf"; }

    const TempDir dir_;
    const std::string more_;
    std::string port_;
    std::unique_ptr<Process> process_;
};

} // namespace kit
