// What tarnctl learns of servers that are newer than it.
#include "host/ctl/remote.h"

#include <gtest/gtest.h>

#include "host/ctl/commands.h"
#include "host/meaning/reflect.h"
#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "newer_daemon.h"
#include "temp_dir.h"

namespace {

class RemoteTest : public testing::Test {
protected:
    RemoteTest() { host::Log().set_level(host::LogLevel::kOff); }
    ~RemoteTest() override { host::Log().set_level(host::LogLevel::kInfo); }

    void Serve(const std::function<std::string()> &describe) {
        server_ = std::make_unique<host::Server>(host::ServerOptions{.runDir = dir_.Path(), .describe = describe});
        server_->AddService(newer::kServiceSpec);
        server_->Start();
    }

    static std::string Newer() {
        static constexpr const host::meaning::Service *kServices[] = {&newer::kDaemon};
        return host::meaning::Reflect(kServices);
    }

    const kit::TempDir dir_;
    std::unique_ptr<host::Server> server_;
    ctl::Remote remote_{dir_.Path(), 1};
};

TEST_F(RemoteTest, HasTheMethodsThatAreNotKnownHere) {
    Serve(Newer);
    const auto methods = remote_.Methods();
    ASSERT_EQ(methods.size(), 1U) << "PidIsOnline is known";
    EXPECT_STREQ(methods[0]->name, "GetFanInfo");
    EXPECT_EQ(remote_.FindMethod("GetFanInfo"), methods[0]);
    EXPECT_EQ(remote_.FindMethod("TarnSysdiagTarnd.GetFanInfo"), methods[0]);
    EXPECT_EQ(remote_.FindMethod("TarnSysdiagMaster.GetFanInfo"), nullptr);
    EXPECT_EQ(remote_.FindMethod("PidIsOnline"), nullptr);
}

TEST_F(RemoteTest, HasNothingWhereNobodyAnswersOrSaysIt) {
    EXPECT_TRUE(ctl::Remote(dir_.Path()).Methods().empty());
    Serve({});
    EXPECT_TRUE(remote_.Methods().empty());
}

TEST_F(RemoteTest, SaysWhoseDescriptionIsNone) {
    Serve([] { return "{\"types\": 7}"; });
    try {
        remote_.Methods();
        FAIL();
    } catch (const ctl::Failure &failure) {
        EXPECT_EQ(failure.Code(), ctl::kRefused);
        EXPECT_STREQ(failure.what(), "TarnSysdiagTarnd describes itself: not a description of services: types is 7, "
                                     "expected an array");
    }
}

} // namespace
