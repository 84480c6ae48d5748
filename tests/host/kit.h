// What the tests of the daemon and the agent share: a run directory, processes, and calls with records in and out. A
// test file includes host/answer/unit.h, says TARN_UNIT() and includes the headers of types/ before this one.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/runtime/client.h"
#include "tests/host/eventually.h"
#include "tests/host/temp_dir.h"

namespace kit {

using namespace std::chrono_literals;

// A program with its output in files.
class Process {
public:
    Process(const std::filesystem::path &directory, std::vector<std::string> command) : directory_(directory) {
        std::vector<char *> arguments;
        for (std::string &word : command) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        static int count = 0;
        name_ = std::filesystem::path(command[0]).filename().string() + "." + std::to_string(++count);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, 1, File("out").c_str(), kFlags, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, File("err").c_str(), kFlags, 0600);
        const int error = posix_spawn(&pid_, command[0].c_str(), &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), command[0]);
        }
    }
    ~Process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    uint32_t Pid() const { return static_cast<uint32_t>(pid_); }
    std::string Out() const { return TextOfFile(File("out")); }
    std::string Err() const { return TextOfFile(File("err")); }
    void Signal(int signal) const { kill(pid_, signal); }

    // The exit status; -1 after a signal.
    int Wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int Stop() {
        Signal(SIGTERM);
        return Wait();
    }

private:
    std::filesystem::path File(const char *suffix) const { return directory_ / (name_ + "." + suffix); }

    const std::filesystem::path directory_;
    std::string name_;
    pid_t pid_ = -1;
};

// A call's end: how, and the reply's record, which is released with it.
template <class Unit, class Response>
class Answer {
public:
    explicit Answer(host::CallOutcome &&outcome) : outcome_(std::move(outcome)) {
        if (outcome_.Ok()) {
            EXPECT_NE(Codec::kUnpack(outcome_.bytes.data(), static_cast<uint32_t>(outcome_.bytes.size()), &record_),
                      nullptr);
        }
    }
    ~Answer() { Codec::kFreeUnpacked(&record_); }
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;

    uint32_t Status() const { return outcome_.errCode != 0 ? 1000 + outcome_.errCode : outcome_.status; }
    const std::string &Text() const { return outcome_.text; }
    const std::string &Explanation() const { return outcome_.explanation; }
    const Response *operator->() const { return &record_; }

private:
    using Codec = velto::Codec<Unit, Response>;
    host::CallOutcome outcome_;
    Response record_{};
};

// Not inlined: where the record is constant, g++ 12 takes the encoder's branches for other records for overruns.
template <class Unit, class Request>
[[gnu::noinline]] std::vector<uint8_t> Encode(const Request &request) {
    using Codec = velto::Codec<Unit, Request>;
    std::vector<uint8_t> bytes(Codec::kPack(nullptr, &request));
    auto capacity = static_cast<uint32_t>(bytes.size());
    const VeltoOutBuf out{bytes.data(), &capacity};
    EXPECT_EQ(Codec::kPack(&out, &request), bytes.size());
    return bytes;
}

template <class Unit, class Response, class Request>
Answer<Unit, Response> Call(host::Client &client, const char *service, uint32_t pid, const char *method,
                            const Request &request) {
    return Answer<Unit, Response>(
        client.Call(service, pid, method, velto::kTypeHash<Request>, Encode<Unit>(request), 20s));
}

// Whether a service takes calls: its socket has its name a moment before it takes connections.
inline bool TakesCalls(host::Client &client, const char *service, uint32_t pid) {
    return client.Knows(service, pid) && client.Call(service, pid, "NoSuchMethod", 0, {}, 20s).errCode != ECONNREFUSED;
}

// The status or error of a call without reply.
template <class Unit, class Request>
uint32_t Oneway(host::Client &client, const char *service, uint32_t pid, const char *method, const Request &request) {
    const std::vector<uint8_t> bytes = Encode<Unit>(request);
    return client.Oneway({service, pid, method, velto::kTypeHash<Request>, bytes, 20s}).errCode;
}

template <size_t kSize>
void Set(char (&array)[kSize], std::string_view text) {
    text.copy(array, kSize);
}

} // namespace kit
