// How methods answer: what their requests' members accept, what is refused in which words, and where a failure travels.
#include "host/answer/answer.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "tests/host/method_kit.h"

namespace {

namespace methods = host::methods;

// A method that answers with an empty reply.
template <class Request, class Response>
auto Ask(const host::meaning::MethodOf<Request, Response> &method, const Request &request) {
    auto context = std::make_unique<kit::ReplyContext>();
    const kit::RunningMethod running(*context);
    context->status = host::Answer(method, &request, context.get(), [](auto &) {});
    return kit::MethodAnswer<Response>(std::move(context));
}

// Why it refuses a request; empty where it does not.
template <class Request, class Response>
std::string RefusalOf(const host::meaning::MethodOf<Request, Response> &method, const Request &request) {
    const auto answer = Ask(method, request);
    EXPECT_EQ(answer.Status(), answer.Reason().empty() ? 0 : EINVAL);
    return answer.Reason();
}

TEST(Answer, NumbersAreWithinTheirRange) {
    const auto refusal = [](uint32_t threshold) { return RefusalOf(methods::SetTaskStarvThreshold, {threshold}); };
    EXPECT_EQ(refusal(1), "");
    EXPECT_EQ(refusal(3'600'000), "");
    EXPECT_EQ(refusal(0), "threshold (uiStarvThreshold) is 0 ms, expected 1 to 3600000");
    EXPECT_EQ(refusal(3'600'001), "threshold (uiStarvThreshold) is 3600001 ms, expected 1 to 3600000");
}

TEST(Answer, ANumberIsNotBeyondTheOneThatBoundsIt) {
    const auto refusal = [](uint32_t beginsAt, uint32_t endsBelow) {
        return RefusalOf(methods::SysOvLoadMemThresholdSet, {beginsAt, endsBelow});
    };
    EXPECT_EQ(refusal(500, 500), "");
    EXPECT_EQ(refusal(500, 0), "") << "which stands for another";
    EXPECT_EQ(refusal(500, 501),
              "ends-below (uiValue2) is 501 ‰, expected at most begins-at (uiValue1), which is 500 ‰");
}

TEST(Answer, ChoicesHaveNames) {
    EXPECT_EQ(RefusalOf(methods::ResetBBoxInfo, {2, 0}), "");
    EXPECT_EQ(RefusalOf(methods::ResetBBoxInfo, {3, 0}),
              "records (uiValue1) is 3, expected all (0), exceptions (1) or assertions (2)");
    EXPECT_EQ(RefusalOf(methods::SetOvLoadDebugSwitch, {3, 1}), "");
    EXPECT_EQ(RefusalOf(methods::SetOvLoadDebugSwitch, {4, 1}),
              "monitors (uiValue1) is 4, expected a sum of cpu (1) and memory (2)");
    EXPECT_EQ(RefusalOf(methods::SetOvLoadDebugSwitch, {0, 1}),
              "monitors (uiValue1) is 0, expected a sum of cpu (1) and memory (2)");
    EXPECT_EQ(RefusalOf(methods::SetOvLoadDebugSwitch, {1, 2}), "on (uiValue2) is 2, expected 0 to 1");
}

TEST(Answer, TextsAreNoneButOnesThatAreAccepted) {
    const auto refusal = [](const char *what) {
        Tarn_sys_diag_ClearEnvActInput request{};
        host::CopyText(request.acValue1, what);
        return RefusalOf(methods::ClearEnvAct, request);
    };
    EXPECT_EQ(refusal("leak"), "");
    EXPECT_EQ(refusal("lea\x1B"), "what (acValue1) is \"lea?\", expected \"overload\", \"leak\" or \"settings\"");
    EXPECT_EQ(refusal(""), "what (acValue1) is empty, expected \"overload\", \"leak\" or \"settings\"");
    EXPECT_EQ(RefusalOf(methods::ZipLogFile, {}), "name (szZipName) is empty, expected a text");
}

TEST(Answer, WhatDoesNotMatterIsNotLookedAt) {
    const auto refusal = [](uint8_t on, uint32_t beginsAt) {
        return RefusalOf(methods::SetCpuOvProcThreshold, {4711, on, beginsAt, 0});
    };
    EXPECT_EQ(refusal(0, 0), "");
    EXPECT_EQ(refusal(1, 0), "begins-at (uiValue3) is 0 ‰, expected at least 1");
}

TEST(Answer, ARecordWithinARecordIsChecked) {
    EXPECT_EQ(RefusalOf(methods::SetTimezone, {}),
              "zone (stTimezone): name (szTimezoneName) is empty, expected a text");
}

TEST(Answer, AMethodRefusesByItsStateInTheSameWords) {
    using host::meaning::BadMember;
    const auto &watch = methods::SetCpuOvProcThreshold;
    EXPECT_STREQ(BadMember(watch, "begins-at", 2001, "1 to 2000").what(),
                 "begins-at (uiValue3) is 2001 ‰, expected 1 to 2000: Invalid argument");
    EXPECT_STREQ(BadMember(watch, "uiValue3", 2001, "1 to 2000").what(),
                 "begins-at (uiValue3) is 2001 ‰, expected 1 to 2000: Invalid argument");
    EXPECT_STREQ(BadMember(methods::ZipLogFile, "source", "a\nb\x01", "a file").what(),
                 "source (szLogPath) is \"a b?\", expected a file: Invalid argument");
    EXPECT_STREQ(BadMember(methods::ZipLogFile, "source", "", "a file").what(),
                 "source (szLogPath) is empty, expected a file: Invalid argument");
    EXPECT_THROW(BadMember(watch, "no-member", 0, ""), std::logic_error);
}

TEST(Answer, AFunctionOnlyRunsForARequestThatIsAccepted) {
    kit::ReplyContext context;
    bool ran = false;
    const Tarn_sys_diag_OsProcessCpuInput request{1, UINT32_MAX, 0};
    const uint32_t status =
        host::Answer(methods::CalculateOsProcCpuUse, &request, &context, [&](auto &) { ran = true; });
    EXPECT_EQ(status, EINVAL);
    EXPECT_FALSE(ran);
    EXPECT_EQ(context.record, nullptr);
}

// The reply to a method that answers with a result.
template <class Request, class Response, class Function>
auto ResultOf(const host::meaning::MethodOf<Request, Response> &method, const Request &request, Function function) {
    auto context = std::make_unique<kit::ReplyContext>();
    const kit::RunningMethod running(*context);
    context->status = host::AnswerResult(method, &request, context.get(), function);
    return kit::MethodAnswer<Response>(std::move(context));
}

TEST(Answer, AResultTellsOfAFailureAndItsReason) {
    const auto refused = ResultOf(methods::SetTaskSwitch, {2}, [] { ADD_FAILURE(); });
    EXPECT_EQ(refused->uiTaskResult, EINVAL);
    EXPECT_EQ(refused.Reason(), "on (uiTaskSwitch) is 2, expected 0 to 1");
    const auto failed = ResultOf(methods::SetTaskSwitch, {1}, [] { host::Fail(ENOSPC, "no room for it"); });
    EXPECT_EQ(failed->uiTaskResult, ENOSPC);
    EXPECT_EQ(failed.Reason(), "no room for it");
    const auto done = ResultOf(methods::SetTaskSwitch, {1}, [] {});
    EXPECT_EQ(done->uiTaskResult, 0);
    EXPECT_EQ(done.Reason(), "");
}

TEST(Answer, AFailureTravelsWithoutTheRestOfTheReply) {
    auto context = std::make_unique<kit::ReplyContext>();
    const Tarn_sys_diag_GetMsgRuleInfoInput request{};
    host::AnswerWithResult(methods::TarnGetMsgRuleInfoTarnd, &request, context.get(), [](auto &reply) {
        reply.pstRule = reply.Keep(std::vector<Tarn_sys_diag_MsgRuleInfo>(3), reply.uiRuleNum);
        host::Fail(ETIMEDOUT, "no agent answers");
    });
    const kit::MethodAnswer<Tarn_sys_diag_GetMsgRuleInfoResult> answer(std::move(context));
    EXPECT_EQ(answer->uiResult, ETIMEDOUT);
    EXPECT_EQ(answer->uiRuleNum, 0);
    EXPECT_EQ(answer->pstRule, nullptr);
}

TEST(Answer, MembersOfAReplyHaveTheNamesThatAFunctionGivesThem) {
    host::Reply<Tarn_sys_diag_HugePagesOutput> reply;
    auto &[total, free] = reply.Members();
    total = 9;
    free = 7;
    EXPECT_EQ(reply.uiValue1, 9);
    EXPECT_EQ(reply.uiValue2, 7);
}

// ---- Whose processes a request looks into ----

// A process of another user, until the test ends.
class OthersProcess {
public:
    explicit OthersProcess(uid_t user, bool hidden = false) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid_ = fork();
        if (pid_ == 0) { // what it is to be is so before the pipe ends
            if (setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0) {
                _exit(1);
            }
            prctl(PR_SET_DUMPABLE, hidden ? 0 : 1);
            close(ends[0]);
            close(ends[1]);
            pause();
        }
        close(ends[1]);
        char none;
        EXPECT_EQ(read(ends[0], &none, 1), 0);
        close(ends[0]);
    }
    ~OthersProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    OthersProcess(const OthersProcess &) = delete;
    OthersProcess &operator=(const OthersProcess &) = delete;

    uint32_t Pid() const { return static_cast<uint32_t>(pid_); }

private:
    pid_t pid_ = -1;
};

class MemoryTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can run others' processes";
        }
    }
    // How a caller without a word in the policy fares with a method of `memory`.
    template <class Request, class Response>
    static std::string RefusalTo(uint32_t user, const host::meaning::MethodOf<Request, Response> &method,
                                 const Request &request) {
        kit::ReplyContext context;
        context.peer = {1, user, user, 0};
        const kit::RunningMethod running(context);
        const uint32_t status = host::Answer(method, &request, &context, [](auto &) {});
        EXPECT_EQ(status, context.reason.empty() ? 0 : EACCES);
        if (context.record != nullptr) {
            host::Release(static_cast<Response *>(context.record));
        }
        return context.reason;
    }
    static constexpr uint32_t kUser = 65534, kOther = 65533;
};

TEST_F(MemoryTest, IsOfTheCallersOwnProcesses) {
    const OthersProcess own(kUser), others(kOther);
    const auto mappings = [](uint32_t pid) { return RefusalTo(kUser, methods::GetOsProcessMapsInfo, {pid}); };
    EXPECT_EQ(mappings(own.Pid()), "");
    EXPECT_EQ(mappings(others.Pid()), fmt::format("process {} is not user 65534's, and the policy's memory-of-others "
                                                  "does not name that user",
                                                  others.Pid()));
    EXPECT_NE(mappings(1), "") << "root's are root's";
    EXPECT_NE(mappings(UINT32_MAX), "") << "no process";
    EXPECT_EQ(RefusalTo(kUser, methods::GetCallStackInfoByTid, {own.Pid(), 0}), "");
    EXPECT_NE(RefusalTo(kUser, methods::GetCallStackInfoByTid, {others.Pid(), 0}), "");
    EXPECT_NE(RefusalTo(kUser, methods::AppMemInfo, {others.Pid(), 0}), "") << "also by its agent";
    EXPECT_EQ(RefusalTo(kUser, methods::GetProcStatByPid, {others.Pid()}), "") << "no memory";
}

TEST_F(MemoryTest, IsNotOfAProcessThatHadMoreRights) {
    const OthersProcess hidden(kUser, true);
    EXPECT_NE(RefusalTo(kUser, methods::GetOsProcessMapsInfo, {hidden.Pid()}), "");
}

TEST_F(MemoryTest, OfAllIsOfOthers) {
    EXPECT_EQ(RefusalTo(kUser, methods::GetOsProcessMemInfo, {0}),
              "what is asked for is not user 65534's, and the policy's memory-of-others does not name that user");
    EXPECT_NE(RefusalTo(kUser, methods::GetSysMemStatisFile, {}), "");
    EXPECT_NE(RefusalTo(kUser, methods::DisCpuOvloadCallstackInfo, {}), "");
}

TEST_F(MemoryTest, OfOthersIsForWhomThePolicyNames) {
    const OthersProcess others(kOther);
    kit::ReplyContext context;
    context.peer = {1, kUser, kUser, 1};
    const kit::RunningMethod running(context);
    EXPECT_TRUE(host::MayLookInto(others.Pid()));
    context.peer.ucMemoryOfOthers = 0;
    EXPECT_FALSE(host::MayLookInto(others.Pid()));
}

} // namespace
