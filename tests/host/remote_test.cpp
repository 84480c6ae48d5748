// What tarnctl learns of servers that are newer than it.
#include "host/ctl/remote.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "host/ctl/commands.h"
#include "host/meaning/reflect.h"
#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "newer_daemon.h"
#include "temp_dir.h"

namespace {

using host::describe::Json;

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

// ---- The program itself ----

class NewerDaemon : public RemoteTest {
protected:
    NewerDaemon() { Serve(Newer); }

    // What tarnctl prints, errors as well.
    std::string Run(const std::string &arguments) {
        const std::string command = "TARN_RUN_DIR=" + dir_.Path().string() + " " + TARNCTL + " " + arguments + " 2>&1";
        const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
        std::string text;
        for (int letter = fgetc(pipe.get()); letter != EOF; letter = fgetc(pipe.get())) {
            text += static_cast<char>(letter);
        }
        return text;
    }
    Json RunJson(const std::string &arguments) { return host::describe::ParseJson(Run(arguments)); }
};

TEST_F(NewerDaemon, IsListedWithAMark) {
    const std::string list = Run("list fan");
    EXPECT_NE(list.find("GetFanInfo  Tells of the machine's fans. (only its server knows it)"), list.npos) << list;
    const std::string known = Run("list PidIsOnline");
    EXPECT_EQ(known.find("only its server"), known.npos) << known;
}

TEST_F(NewerDaemon, IsDescribed) {
    const std::string text = Run("describe GetFanInfo");
    for (const char *part :
         {"Tells of the machine's fans.", "fan", "order", "By their names.", "How fast they turn."}) {
        EXPECT_NE(text.find(part), text.npos) << part << "\n" << text;
    }
    EXPECT_NE(Run("describe GetFanInof").find("GetFanInof: no such method or type"), std::string::npos);
}

TEST_F(NewerDaemon, IsCalledByWordsAndByJson) {
    for (const char *request : {"fan=1 order=time", "'{\"uiFan\": 1}'", "'{\"fan\": 1, \"order\": \"time\"}'"}) {
        const Json reply = RunJson(std::string("call GetFanInfo ") + request + " --json");
        EXPECT_EQ(reply["pstFan"].size(), 1U) << request;
        EXPECT_EQ(reply["usShare"], 900) << request;
    }
    EXPECT_NE(Run("call GetFanInfo fan=9").find("fan (uiFan) is 9, expected"), std::string::npos);
}

TEST_F(NewerDaemon, WithoutAJournalHasNoEventsToFollow) {
    for (const char *arguments : {"events", "events --follow"}) {
        EXPECT_EQ(Run(arguments), "tarnctl: this daemon does not tell its events: it is older than that\n");
    }
}

TEST_F(NewerDaemon, AnswersInItsOwnNames) {
    const Json reply = RunJson("call GetFanInfo fan=0 --json=named");
    EXPECT_EQ(reply["fans"].size(), 2U);
    EXPECT_EQ(reply["fans"][0]["name"], "front");
    EXPECT_EQ(reply["note"], "two of them");
    const std::string text = Run("call GetFanInfo fan=0");
    EXPECT_NE(text.find("front"), text.npos) << text;
    EXPECT_NE(text.find("share"), text.npos) << text;
}

} // namespace
