// A server's sessions on the test's thread and by its clock: what the loop would report is said by the test, and a
// method that is to run beside others says what they do meanwhile. A test file makes a unit, and includes
// tarn_sysdiag/types/tarnd.h, before this one.
#pragma once

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <sstream>

#include "host/runtime/server_core.h"
#include "host/runtime/session.h"
#include "peer.h"
#include "served_test.h"

namespace kit {

using served::AnswerOnline;

// A client that the server has accepted.
struct Client {
    Client(std::shared_ptr<host::Session> accepted, int fd) : session(std::move(accepted)), peer(fd) {}

    // Sends, and has the server read it.
    void Say(std::span<const uint8_t> bytes) const {
        peer.Send(bytes);
        Report(EPOLLIN);
    }
    void Report(uint32_t events) const { static_cast<host::Pollable &>(*session).OnReady(events); }

    std::shared_ptr<host::Session> session;
    peer::RawPeer peer;
};

class SessionTest : public served::ServedTest {
protected:
    ~SessionTest() override {
        for (const auto &session : sessions_) {
            session->Close();
        }
        RunTasks();
    }

    void Serve(const host::Limits &limits = {}, unsigned workers = 1, const std::string &policy = {}) {
        std::istringstream text(policy);
        core_ = std::make_shared<host::ServerCore>(host::ServerOptions{.runDir = dir_.Path(),
                                                                       .workers = workers,
                                                                       .limits = limits,
                                                                       .policy = host::Policy::Parse(text, "policy"),
                                                                       .clocks = &clocks_},
                                                   std::vector<const IdlModuleSpec *>{&__module_spec_TarnSysdiagTarnd});
    }

    Client Connect(uid_t uid = geteuid()) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const auto session = std::make_shared<host::Session>(loop_, host::Descriptor(ends[0]),
                                                             host::Peer{.pid = getpid(), .uid = uid, .gid = getegid()},
                                                             core_->UserOf(uid), host::Charge(), core_);
        EXPECT_TRUE(session->Open());
        sessions_.push_back(session);
        return {session, ends[1]};
    }

    // What the sessions have posted; to be called once, or by the end.
    void RunTasks() {
        loop_.Stop();
        loop_.Run();
    }

    void CheckTimes(const Client &client) { client.session->CheckTimes(clocks_.SteadyNow()); }

    uint64_t Refused(host::Reason reason) { return core_->GetRefusals().Get(reason); }

    // The answer of the runtime's own service.
    static host::Frame AskRuntime(const Client &client, const char *method) {
        host::FrameHeader header;
        header.id = 1;
        strcpy(header.service, "TarnHostRuntime");
        strcpy(header.method, method);
        client.Say(host::MakeFrame(header, {}));
        auto frames = client.peer.Read(1);
        EXPECT_EQ(frames.size(), 1U);
        return frames.empty() ? host::Frame() : std::move(frames[0]);
    }

    // What the server says of a method, without blanks.
    std::string StatusOf(const std::string &method) {
        const host::Frame answer = AskRuntime(Connect(), "Status");
        std::string status(answer.payload.begin(), answer.payload.end());
        std::erase_if(status, [](char c) { return c == ' ' || c == '\n'; });
        const size_t at = status.find("\"name\":\"" + method + "\"");
        EXPECT_NE(at, std::string::npos) << status;
        const size_t begin = status.rfind('{', at);
        return status.substr(begin, status.find('}', at) - begin + 1);
    }

    static bool HasEnded(const Client &client) { return !client.session->Send({}); }

    host::Loop loop_{clocks_};
    std::shared_ptr<host::ServerCore> core_;
    std::vector<std::shared_ptr<host::Session>> sessions_;
};

} // namespace kit
