// How methods answer: what their requests' members accept, what is refused in which words, and where a failure travels.
#include "host/answer/answer.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(refusal("lea\x1B"), "what (acValue1) is \"lea?\", expected \"overload\" or \"leak\"");
    EXPECT_EQ(refusal(""), "what (acValue1) is empty, expected \"overload\" or \"leak\"");
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

} // namespace
