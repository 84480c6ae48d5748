// What the tests of served methods share. A test file includes host/answer/unit.h, says TARN_UNIT() and includes
// tarn_sysdiag/types/tarnd.h before this one.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "kit.h"
#include "manual_clocks.h"
#include "served.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace served {

constexpr const char *kTarnd = "TarnSysdiagTarnd";

inline uint32_t AnswerOnline(void *replyCtx) {
    Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
    return TarnHost_Reply(replyCtx, &online);
}

// PidIsOnline answers that each is. Nothing is logged: refusals are what most of these tests are about.
class ServedTest : public testing::Test {
protected:
    ServedTest() {
        host::Log().set_level(host::LogLevel::kOff);
        On("PidIsOnline", [](const void *, void *replyCtx) { return AnswerOnline(replyCtx); });
    }
    ~ServedTest() override {
        Reset();
        host::Log().set_level(host::LogLevel::kInfo);
    }

    const kit::TempDir dir_;
    kit::ManualClocks clocks_; // the server's
};

// With a server in the run directory, when there is one, and a client beside the proxies' own. What they
// allocate is free at the end.
class ServerTest : public ServedTest {
protected:
    ServerTest() : liveBefore_(host::MemoryTotal().liveBlocks) {
        host::Client::Default().Configure({.runDir = dir_.Path()});
        client_.Configure({.runDir = dir_.Path()});
    }
    ~ServerTest() override {
        client_.Shutdown();
        host::Client::Default().Shutdown();
        server_.reset();
        Reset();
        EXPECT_EQ(host::MemoryTotal().liveBlocks, liveBefore_);
    }

    // With the services of the daemon and of an agent; it is not started yet.
    void MakeServer(host::ServerOptions options) {
        options.runDir = dir_.Path();
        options.clocks = &clocks_;
        server_.reset();
        server_ = std::make_unique<host::Server>(std::move(options));
        server_->AddService(__module_spec_TarnSysdiagTarnd);
        server_->AddService(served_module_spec_TarnSysdiagAgent);
    }

    host::Client client_;
    std::unique_ptr<host::Server> server_;

private:
    const uint64_t liveBefore_;
};

} // namespace served
