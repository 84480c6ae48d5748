// What the runtime sees of the proxies: every variant of every method.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/library/codec_check.h"
#include "tests/library/methods.h"
#include "tests/library/platform.h"

namespace {
using Lines = std::vector<std::string>;

constexpr IdlCallResult kOutcome = {0x12345678, 0x9ABCDEF0};
int invokeCtx, userData;

void Callback(const IdlCallResult *, void *, void *) {
    ADD_FAILURE() << "the library called the completion callback";
}

// A call of one method: its platform, records of exact size, and the names that calls are shown with.
struct Caller {
    explicit Caller(const ProxyMethod &called)
        : method(called), request(FindType(called.request)), in(request.shape->size, 0x5A),
          out(called.Replies() ? FindType(called.response).shape->size : 0, 0xC3), platform(Platform::Get()),
          script(platform.Start()) {
        platform.Name(in.data(), "in");
        platform.Name(out.data(), "out");
        platform.Name(&invokeCtx, "ctx");
        script.callResult = kOutcome;
        script.asyncResult = 0xAAAA;
        script.onewayResult = 0x1111;
    }
    ~Caller() {
        EXPECT_EQ(platform.misuse, Lines{}) << method.Function();
        EXPECT_TRUE(platform.log.empty()) << method.Function() << ": the proxies log nothing";
    }

    std::string Prologue() const { return "RPC_GetRpcInvoke(" + method.service + ", ctx)"; }
    std::string Create(const Block &record, const std::string &tag) const {
        return "RPC_IdlMsgCreate(" + std::to_string(record.size) + ", 4711, " + tag + ")";
    }
    std::string Copy(const std::string &to) const {
        const std::string size = std::to_string(in.size);
        return "memcpy_s(" + to + ", " + size + ", in, " + size + ")";
    }
    std::string Clear(const std::string &what) const {
        const std::string size = std::to_string(out.size);
        return "memset_s(" + what + ", " + size + ", 0, " + size + ")";
    }
    std::string AsyncTag() const { return method.Function() + "_async"; }

    uint32_t StartAsync() { return method.async(in.data(), Callback, &userData, &invokeCtx); }

    // The runtime was given the method's name pair and the table that its SetIdl fills.
    void ExpectMethodPassedOn() const {
        EXPECT_EQ(platform.service, method.service);
        EXPECT_EQ(platform.method, method.name);
        IdlCodecTable table;
        method.setIdl(&table);
        EXPECT_EQ(memcmp(&platform.codec, &table, sizeof table), 0) << method.Function();
    }

    void ExpectContext(const char *response) const {
        const IdlAsyncCtx &context = platform.context;
        EXPECT_EQ(platform.Calls().back(), std::string("RPC_IdlMsgAsyncCall(invoker, message 1, ") + response + ")");
        EXPECT_EQ(context.pfnCallback, Callback);
        EXPECT_EQ(context.pUserData, &userData);
        for (const uintptr_t word : context.auiReserved) {
            EXPECT_EQ(word, 0U);
        }
        EXPECT_EQ(platform.request, Bytes(in.data(), in.data() + in.size));
        EXPECT_EQ(platform.response, Bytes(out.size, 0));
        ExpectMethodPassedOn();
    }

    const ProxyMethod &method;
    const Type &request;
    Block in, out;
    Platform &platform;
    Script &script;
};

template <class Test>
void ForEachMethod(bool replies, Test test) {
    size_t num = 0;
    for (const ProxyMethod &method : ProxyMethods()) {
        if (method.Replies() == replies) {
            SCOPED_TRACE(method.Function());
            test(method);
            ++num;
        }
    }
    EXPECT_EQ(num, replies ? 35U : 6U);
}

void ExpectResult(const IdlCallResult &result, uint32_t status, uint32_t code) {
    EXPECT_EQ(result.uiStatus, status);
    EXPECT_EQ(result.uiErrCode, code);
}
} // namespace

TEST(Proxy, ASynchronousCallWithReplyHandsTheCallersRecordsToTheRuntime) {
    ForEachMethod(true, [](const ProxyMethod &method) {
        Caller caller(method);
        const IdlCallResult result = method.call(caller.in.data(), caller.out.data(), &invokeCtx);
        ExpectResult(result, kOutcome.uiStatus, kOutcome.uiErrCode);
        EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), "RPC_IdlMsgSyncCall(invoker, in, out)"}));
        caller.ExpectMethodPassedOn();
    });
}

TEST(Proxy, ASynchronousCallWithoutReplySendsACopyAndDestroysIt) {
    ForEachMethod(false, [](const ProxyMethod &method) {
        Caller caller(method);
        const IdlCallResult result = method.call(caller.in.data(), nullptr, &invokeCtx);
        ExpectResult(result, kOutcome.uiStatus, kOutcome.uiErrCode);
        EXPECT_EQ(caller.platform.Calls(),
                  (Lines{caller.Prologue(), caller.Create(caller.in, method.Function()), caller.Copy("message 1"),
                         "RPC_IdlMsgSyncCall(invoker, message 1, null)",
                         "RPC_IdlMsgDestroy(message 1, 4711, " + method.Function() + ")"}));
        EXPECT_EQ(caller.platform.request, Bytes(caller.in.data(), caller.in.data() + caller.in.size));
        caller.ExpectMethodPassedOn();
    });
}

TEST(Proxy, AnAsynchronousCallWithReplyHandsTwoMessagesToTheRuntime) {
    ForEachMethod(true, [](const ProxyMethod &method) {
        Caller caller(method);
        EXPECT_EQ(caller.StartAsync(), 0U);
        EXPECT_EQ(caller.platform.Calls(),
                  (Lines{caller.Prologue(), caller.Create(caller.in, caller.AsyncTag()),
                         caller.Create(caller.out, caller.AsyncTag()), caller.Clear("message 2"),
                         caller.Copy("message 1"), "RPC_IdlMsgAsyncCall(invoker, message 1, message 2)"}));
        caller.ExpectContext("message 2");
    });
}

TEST(Proxy, AnAsynchronousCallWithoutReplyHandsOneMessageToTheRuntime) {
    ForEachMethod(false, [](const ProxyMethod &method) {
        Caller caller(method);
        EXPECT_EQ(caller.StartAsync(), 0U);
        EXPECT_EQ(caller.platform.Calls(),
                  (Lines{caller.Prologue(), caller.Create(caller.in, caller.AsyncTag()), caller.Copy("message 1"),
                         "RPC_IdlMsgAsyncCall(invoker, message 1, null)"}));
        caller.ExpectContext("null");
    });
}

TEST(Proxy, AnAsynchronousCallReturnsZeroWhateverTheRuntimeSays) {
    for (const ProxyMethod &method : ProxyMethods()) {
        for (const uint32_t status : {0U, 12U, 0xFFFFFFFFU}) {
            Caller caller(method);
            caller.script.asyncResult = status;
            EXPECT_EQ(caller.StartAsync(), 0U) << method.Function();
        }
    }
}

TEST(Proxy, AOnewayCallHandsTheCallersRecordToTheRuntimeAndReturnsItsCode) {
    ForEachMethod(false, [](const ProxyMethod &method) {
        Caller caller(method);
        EXPECT_EQ(method.oneway(caller.in.data(), &invokeCtx), 0x1111U);
        EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), "RPC_IdlMsgOnewayCall(invoker, in)"}));
        caller.ExpectMethodPassedOn();
    });
}

TEST(Proxy, AnAsynchronousCallWithoutReplyAndWithoutCallbackIsTheOnewayCall) {
    ForEachMethod(false, [](const ProxyMethod &method) {
        Caller caller(method);
        EXPECT_EQ(method.async(caller.in.data(), nullptr, &userData, &invokeCtx), 0x1111U);
        EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), "RPC_IdlMsgOnewayCall(invoker, in)"}));
        caller.ExpectMethodPassedOn();
    });
}

TEST(Proxy, DetectSysdiagServerOnlineWithoutCallbackIsTheOnewayCall) {
    Caller caller(FindProxy("DetectSysdiagServerOnline"));
    EXPECT_EQ(caller.method.async(caller.in.data(), nullptr, nullptr, &invokeCtx), 0x1111U);
    EXPECT_EQ(caller.platform.CountCalls("RPC_IdlMsgOnewayCall"), 1U);
    EXPECT_EQ(caller.platform.CountCalls("RPC_IdlMsgAsyncCall"), 0U);
}

// Every combination of the arguments that may not be null and a service that the runtime does not know: the runtime is
// asked for the invoker all the same, and for nothing else.
TEST(Proxy, ANullArgumentOrInvokerIs22AfterThePrologue) {
    for (const ProxyMethod &method : ProxyMethods()) {
        SCOPED_TRACE(method.Function());
        for (int missing = 1; missing < 8; ++missing) {
            const auto check = [&](int relevant, auto call) {
                if ((missing & ~relevant) == 0) {
                    Caller caller(method);
                    caller.script.knowsService = (missing & 4) == 0;
                    call(missing & 1 ? nullptr : caller.in.data(), missing & 2 ? nullptr : caller.out.data(), caller);
                    EXPECT_EQ(caller.platform.Calls(), Lines{caller.Prologue()}) << "missing: " << missing;
                }
            };
            check(method.Replies() ? 7 : 5,
                  [&](const void *in, void *out, Caller &) { ExpectResult(method.call(in, out, &invokeCtx), 0, 22); });
            check(method.Replies() ? 7 : 5, [&](const void *in, void *out, Caller &) {
                EXPECT_EQ(method.async(in, out == nullptr ? nullptr : Callback, &userData, &invokeCtx), 22U);
            });
            if (!method.Replies()) {
                check(5, [&](const void *in, void *, Caller &) { EXPECT_EQ(method.oneway(in, &invokeCtx), 22U); });
                check(5, [&](const void *in, void *, Caller &) {
                    EXPECT_EQ(method.async(in, nullptr, &userData, &invokeCtx), 22U);
                });
            }
        }
    }
}

TEST(Proxy, ANullResponsePointerIs22WithoutContactingTheRuntime) {
    Caller caller(FindProxy("GetMemDmgInfo"));
    ExpectResult(caller.method.call(caller.in.data(), nullptr, &invokeCtx), 0, 22);
    EXPECT_EQ(caller.platform.Calls(), Lines{caller.Prologue()});
}

TEST(Proxy, ARequestMessageThatCannotBeCreatedIs12) {
    for (const ProxyMethod &method : ProxyMethods()) {
        SCOPED_TRACE(method.Function());
        {
            Caller caller(method);
            caller.script.failingCreate = 0;
            EXPECT_EQ(caller.StartAsync(), 12U);
            EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), caller.Create(caller.in, caller.AsyncTag())}));
        }
        if (!method.Replies()) {
            Caller caller(method);
            caller.script.failingCreate = 0;
            ExpectResult(method.call(caller.in.data(), nullptr, &invokeCtx), 0, 12);
            EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), caller.Create(caller.in, method.Function())}));
        }
    }
}

TEST(Proxy, AResponseMessageThatCannotBeCreatedDestroysTheRequestMessageAndIs12) {
    ForEachMethod(true, [](const ProxyMethod &method) {
        Caller caller(method);
        caller.script.failingCreate = 1;
        EXPECT_EQ(caller.StartAsync(), 12U);
        EXPECT_EQ(caller.platform.Calls(), (Lines{caller.Prologue(), caller.Create(caller.in, caller.AsyncTag()),
                                                  caller.Create(caller.out, caller.AsyncTag()),
                                                  "RPC_IdlMsgDestroy(message 1, 4711, " + caller.AsyncTag() + ")"}));
    });
}

TEST(Proxy, MessagesAreAccountedToTheModuleIdOfTheMoment) {
    Caller caller(FindProxy("DBGCmdExecClean"));
    g_uiMoraModuleId = 9;
    caller.method.call(caller.in.data(), nullptr, &invokeCtx);
    g_uiMoraModuleId = kMoraModuleId;
    EXPECT_EQ(caller.platform.Calls()[1], "RPC_IdlMsgCreate(0, 9, TarnSysdiagAgent_DBGCmdExecClean)");
    EXPECT_EQ(caller.platform.Calls().back(), "RPC_IdlMsgDestroy(message 1, 9, TarnSysdiagAgent_DBGCmdExecClean)");
}

TEST(Proxy, AMessageForAnEmptyRecordHasSizeZero) {
    Caller caller(FindProxy("UpdateInnerConfig")); // empty in both directions
    EXPECT_EQ(caller.StartAsync(), 0U);
    EXPECT_EQ(caller.platform.Calls()[1], "RPC_IdlMsgCreate(0, 4711, TarnSysdiagMaster_UpdateInnerConfig_async)");
    EXPECT_EQ(caller.platform.Calls()[2], caller.platform.Calls()[1]);
    EXPECT_EQ(caller.platform.CountCalls("memcpy_s"), 1U);
    EXPECT_EQ(caller.platform.CountCalls("memset_s"), 1U);
}

TEST(Proxy, TheServiceAddressIsNeverWritten) {
    for (const ProxyMethod &method : ProxyMethods()) {
        Caller caller(method);
        method.call(caller.in.data(), caller.out.data(), &invokeCtx);
        caller.StartAsync();
        for (const uint32_t word : method.address->auiRuntime) {
            EXPECT_EQ(word, 0U);
        }
        EXPECT_EQ(method.address->pcService, method.service);
    }
}

TEST(ProxyCodecs, DecodeAndReleaseTheResponse) {
    ForEachMethod(true, [](const ProxyMethod &method) {
        IdlCodecTable table;
        memset(&table, 0xEE, sizeof table);
        method.setIdl(&table);
        ExpectDecoderOf(FindType(method.response), table.pfnUnpack);
        ExpectReleaseOf(FindType(method.response), table.pfnFreeUnpacked);
    });
}

TEST(ProxyCodecs, EncodeTheRequest) {
    for (const ProxyMethod &method : ProxyMethods()) {
        SCOPED_TRACE(method.Function());
        IdlCodecTable table;
        memset(&table, 0xEE, sizeof table);
        method.setIdl(&table);
        ExpectEncoderOf(FindType(method.request), table.pfnPack);
        ExpectFixedFormOf(FindType(method.request), table.pfnFixedPack, table.pfnFixedSize);
        EXPECT_EQ(table.pfnUsrFree, nullptr);
    }
}

TEST(ProxyCodecs, HaveNeitherDecoderNorReleaseWithoutResponse) {
    ForEachMethod(false, [](const ProxyMethod &method) {
        IdlCodecTable table;
        memset(&table, 0xEE, sizeof table);
        method.setIdl(&table);
        EXPECT_EQ(table.pfnUnpack, nullptr);
        EXPECT_EQ(table.pfnFreeUnpacked, nullptr);
    });
}

TEST(ProxyCodecs, HaveAFixedFormForEveryRequestButTheTwoThatOwnMemory) {
    Lines variable;
    for (const ProxyMethod &method : ProxyMethods()) {
        IdlCodecTable table;
        method.setIdl(&table);
        if (table.pfnFixedPack == nullptr) {
            variable.push_back(method.name);
        }
    }
    EXPECT_EQ(variable, (Lines{"DBGCmdExecShow", "MemDiag_ma"}));
}

TEST(ProxyCodecs, EncodeAnEmptyRequestIn16FixedBytes) {
    for (const ProxyMethod &method : ProxyMethods()) {
        if (method.request == "None") {
            IdlCodecTable table;
            method.setIdl(&table);
            ExpectEncoderOf(FindType("None"), table.pfnPack);
            EXPECT_EQ(table.pfnFixedSize(), 16U) << method.Function();
        }
    }
}

TEST(ProxyCodecs, RefuseMKCfgInfoUnlessItsArrayHas97Bytes) {
    IdlCodecTable table;
    FindProxy("SysdiagGetMKCfgInfo").setIdl(&table);
    const Type &type = FindType("MKCfgInfoOutput");
    const std::string text(2 * 97, '7'); // 97 bytes, none of them 0
    constexpr size_t kCount = 24;        // behind root offset, vtable of four slots, distance and offset word
    Bytes message = Encode(type, RecordOf(type, {{"acCfgInfo", text}}));
    message.resize(message.size() + 1, 0x77);
    ASSERT_EQ(message[kCount], 97);
    for (const uint8_t count : {uint8_t{96}, uint8_t{97}, uint8_t{98}}) {
        message[kCount] = count;
        std::vector<uint8_t> record(type.shape->size, 0xEE);
        const bool accepted =
            table.pfnUnpack(message.data(), static_cast<uint32_t>(message.size()), record.data()) != nullptr;
        EXPECT_EQ(accepted, count == 97);
        EXPECT_EQ(record[96], accepted ? 0x77 : 0);
    }
}

TEST(ProxyCodecs, DecodeAGetLocalOutputOfAPeerThatLacksTheLastSlot) {
    IdlCodecTable table;
    FindProxy("GetLocal").setIdl(&table);
    const Type &type = FindType("GetLocalOutput");
    Bytes message = Encode(type, RecordOf(type, {{"uiValue1", 7}, {"ucValue", 9}}));
    ASSERT_EQ(message[4], 10); // the vtable's length, for three slots
    message[4] = 8;
    std::vector<uint64_t> record(type.shape->size / 8 + 1, ~uint64_t{0});
    ASSERT_NE(table.pfnUnpack(message.data(), static_cast<uint32_t>(message.size()), record.data()), nullptr);
    EXPECT_EQ(ToJson(type, record.data()), RecordOf(type, {{"uiValue1", 7}}));
}
