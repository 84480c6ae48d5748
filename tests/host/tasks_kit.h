// A daemon, processes and an application with an agent, for tarnctl to look at. A test file makes a unit before it
// includes this.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "host/describe/json.h"
#include "tests/host/kit.h"

namespace kit {

using host::describe::Json;

class Tasks : public testing::Test {
protected:
    void SetUp() override {
        for (const char *directory : {"logs", "state", "faults"}) {
            std::filesystem::create_directory(dir_.Path() / directory);
        }
        std::filesystem::create_symlink("/bin/sleep", Worker());
        daemon_ = Start({TARND, "--run-dir", dir_.Path(), "--log-dir", dir_.Path() / "logs", "--state-dir",
                         dir_.Path() / "state", "--sample-interval", "50"});
        ASSERT_TRUE(Eventually([&] { return Run("ps") == 0; })) << error_ << daemon_->Err();
    }

    std::unique_ptr<Process> Start(const std::vector<std::string> &command) const {
        std::vector<std::string> withPlace{"/usr/bin/env", "TARN_FAULT_DIR=" + (dir_.Path() / "faults").string()};
        withPlace.insert(withPlace.end(), command.begin(), command.end());
        return std::make_unique<Process>(dir_.Path(), withPlace);
    }

    // A process of a name that no other has, of another test neither.
    std::filesystem::path Worker() const { return dir_.Path() / name_; }
    std::unique_ptr<Process> StartWorker() const {
        return std::make_unique<Process>(dir_.Path(), std::vector<std::string>{Worker(), "600"});
    }

    void StartAgent() {
        agent_ = Start({TARN_AGENT, "--name", "tasked", "--run-dir", dir_.Path()});
        ASSERT_TRUE(Eventually([&] { return Run("exec tasked help") == 0; })) << error_ << agent_->Err();
    }

    // tarnctl with arguments as a shell takes them; its exit code.
    int Run(const std::string &arguments) {
        return RunAnywhere(fmt::format("--run-dir {} {}", dir_.Path().string(), arguments));
    }
    // The same, which may ask others than the test's daemon.
    int RunAnywhere(const std::string &arguments) {
        Process tarnctl(dir_.Path(),
                        {"/bin/sh", "-c", fmt::format("cd {}; exec {} {}", dir_.Path().string(), TARNCTL, arguments)});
        const int code = tarnctl.Wait();
        out_ = tarnctl.Out();
        error_ = tarnctl.Err();
        return code;
    }
    std::string Out(const std::string &arguments) {
        EXPECT_EQ(Run(arguments), 0) << arguments << ": " << error_;
        return out_;
    }
    static std::vector<Json> ObjectsOf(const std::string &text) {
        std::istringstream lines(text);
        std::vector<Json> objects;
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(Json::parse(line));
        }
        return objects;
    }
    std::vector<Json> Objects(const std::string &arguments) { return ObjectsOf(Out(arguments)); }
    // The lines of a file in an archive that was collected.
    std::vector<Json> Archived(const std::string &archive, const std::string &file) {
        Process tar(dir_.Path(), {"/bin/tar", "xzOf", dir_.Path() / archive, "tarn/" + file});
        EXPECT_EQ(tar.Wait(), 0) << tar.Err();
        return ObjectsOf(tar.Out());
    }
    void ExpectFailure(int code, const std::string &arguments, const std::string &text) {
        EXPECT_EQ(Run(arguments), code) << arguments;
        EXPECT_THAT(error_, testing::HasSubstr(text)) << arguments;
    }
    std::string AgentPid() const { return std::to_string(agent_->Pid()); }

    const TempDir dir_;
    const std::string name_ = fmt::format("c{}worker", getpid());
    std::unique_ptr<Process> daemon_, agent_;
    std::string out_, error_;
};

} // namespace kit
