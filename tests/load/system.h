// The whole system for the proofs: a daemon that keeps its state, an application with an agent, a process to look at.
// As for kit.h, a test file makes a unit before it includes this.
#pragma once

#include <fmt/format.h>

#include "tests/host/daemon_kit.h"
#include "tests/load/mix.h"

namespace kit {

using Clock = std::chrono::steady_clock;

template <class Unit>
class WholeSystem : public DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--state-dir", state_, "--copy-target", "copies=" + (this->logs_ / "copies").string()};
    }

    void SetUp() override {
        std::filesystem::create_directories(this->logs_ / "copies");
        std::ofstream(this->logs_ / "mix.log") << std::string(100'000, '.') << "\n";
        StartMaster();
        StartDaemon();
        subject_ = std::make_unique<Subject>(this->dir_);
        scene_.subject = subject_->Pid();
        scene_.thread = subject_->tids["sleeper"];
        std::ifstream maps(fmt::format("/proc/{}/maps", subject_->Pid()));
        uint64_t address = 0;
        maps >> std::hex >> address;
        scene_.address = address;
        StartAgent();
        ASSERT_TRUE(Eventually([this] { return AgentAnswers() && HasRates() && MasterAnswers(); }))
            << this->daemon_->Err() << master_->Err();
    }

    void TearDown() override {
        if (agent_ != nullptr) {
            EXPECT_EQ(agent_->Stop(), 0) << agent_->Err();
        }
        if (master_ != nullptr) {
            EXPECT_EQ(master_->Stop(), 0) << master_->Err();
        }
        DaemonTest<Unit>::TearDown();
    }

    void StartDaemon() {
        DaemonTest<Unit>::StartDaemon();
        scene_.daemon = this->daemon_->Pid();
    }
    void StartAgent() {
        agent_ = std::make_unique<Process>(this->dir_.Path(),
                                           std::vector<std::string>{TARN_AGENT, "--run-dir", this->dir_.Path()});
        scene_.agent = agent_->Pid();
    }

    void StartMaster() {
        master_ = std::make_unique<Process>(
            this->dir_.Path(), std::vector<std::string>{TARN_MASTER, MASTER_CONFIG, "--run-dir", this->dir_.Path(),
                                                        "--state-dir", this->dir_.Path() / "logs" / "master"});
    }

    // It takes a moment until there are two samples.
    bool HasRates() {
        return this->template Call<Tarn_sys_diag_MultiCpuUsageRet>("MultiCpuUsageQuery",
                                                                   Tarn_sys_diag_MultiCpuUsageInput{})
                   .Status() == 0;
    }

    bool MasterAnswers() {
        return kit::Call<Unit, Tarn_sys_diag_GetGmtOutput>(this->client_, "TarnSysdiagMaster", 0, "GetGmt",
                                                           Tarn_sys_diag_None{})
                   .Status() == 0;
    }

    // Through the daemon, so that it must have registered.
    bool AgentAnswers() {
        const Tarn_sys_diag_DbgCmdResultGetByTarndInput request{scene_.agent};
        const auto answer = this->template Call<Tarn_sys_diag_DiagResult>("DBGCmdExecResultGetByTarnd", request);
        return answer.Status() == 0 && answer->uiResult != ESRCH && answer->uiResult != ETIMEDOUT;
    }

    const std::filesystem::path state_ = this->dir_.Path() / "logs" / "state"; // on the same disk as the logs
    Scene scene_;
    std::unique_ptr<Process> master_;
    std::unique_ptr<Process> agent_;
    std::unique_ptr<Subject> subject_;
};

} // namespace kit
