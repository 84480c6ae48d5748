// What the runtime and the daemon see of the wrappers: every method of both served services.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/library/codec_check.h"
#include "tests/library/methods.h"
#include "tests/library/platform.h"

namespace {
using Lines = std::vector<std::string>;

constexpr size_t kCallBuffer = 256;
constexpr uint32_t kStatus = 0x600DD065;
int request, replyCtx, runtimeWord;

const auto kUntouched = reinterpret_cast<IdlUsrFreeFn>(0x10);

// A call of one wrapper: a message for it, the codec table that the runtime lends, and the names that calls are shown
// with.
struct Dispatch {
    explicit Dispatch(const ServedMethod &served)
        : method(served), type(FindType(served.request)), platform(Platform::Get()), script(platform.Start()) {
        std::mt19937 random(type.hash);
        json = RandomRecord(type, random, Filling::kFull);
        script.message = Encode(type, json);
        script.recordSize = type.shape->size;
        script.handlerResult = kStatus;
        platform.calls.clear();
        platform.Name(&request, "request");
        platform.Name(&replyCtx, "replyCtx");
        platform.Name(&codec, "codec");
        codec.pRuntimeWord = &runtimeWord;
    }
    ~Dispatch() {
        EXPECT_EQ(platform.misuse, Lines{}) << method.name;
        EXPECT_EQ(platform.LiveBlocks(), 0U) << method.name;
    }

    uint32_t Run() { return method.wrapper(&request, &replyCtx, &codec); }

    bool IsLarge() const { return type.shape->size > kCallBuffer; }
    std::string Buffer() const { return IsLarge() ? "message 1" : "buffer"; }

    // What every dispatch that reaches the decoder begins with.
    Lines UntilDecoded() const {
        const std::string size = std::to_string(type.shape->size);
        Lines lines;
        if (IsLarge()) {
            lines.push_back("RPC_IdlMsgNew(" + size + ", 0)");
        }
        lines.push_back("memset_s(" + Buffer() + ", " + size + ", 0, " + size + ")");
        lines.push_back("RPC_IdlReqVeltoMsgUnPack(request, " + Buffer() + ", codec)");
        return lines;
    }
    Lines UntilKept(const std::string &record) const {
        const std::string size = std::to_string(sizeof(IdlServerCodecTable));
        Lines lines = UntilDecoded();
        lines.push_back("RPC_GetUsrFuncLib(" + record + ")");
        lines.push_back("memcpy_s(kept, " + size + ", codec, " + size + ")");
        return lines;
    }
    std::string Handled(const std::string &record) const {
        return method.name + "(" + record + (method.Replies() ? ", replyCtx)" : ")");
    }
    // What follows once there is a record, on every path.
    void AddReleases(Lines &lines, const std::string &record) const {
        if (IsLarge()) {
            lines.push_back("RPC_IdlMsgFree(" + record + ", 0)");
        } else if (type.owns) {
            lines.push_back("XRT_OsalMemFree(block, Tarn_sys_diag_" + method.request + "_free_unpacked)");
        }
    }

    const ServedMethod &method;
    const Type &type;
    Platform &platform;
    Script &script;
    IdlServerCodecTable codec = {};
    Json json;
};

template <class Test>
void ForEachMethod(Test test) {
    for (const ServedMethod &method : ServedMethods()) {
        SCOPED_TRACE(method.name);
        test(method);
    }
}

std::vector<const ServedMethod *> LargeMethods() {
    std::vector<const ServedMethod *> methods;
    for (const ServedMethod &method : ServedMethods()) {
        if (FindType(method.request).shape->size > kCallBuffer) {
            methods.push_back(&method);
        }
    }
    return methods;
}

// Fills the stack that the next call of a wrapper will use, so that what it does not clear shows.
[[gnu::noinline]] void SoilStack() {
    volatile uint8_t soil[4096];
    for (volatile uint8_t &byte : soil) {
        byte = 0xEE;
    }
}
} // namespace

TEST(Wrapper, DecodesKeepsTheCodecTableCallsTheDaemonAndReleases) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        EXPECT_EQ(dispatch.Run(), kStatus);
        Lines expected = dispatch.UntilKept("record");
        expected.push_back(dispatch.Handled("record"));
        dispatch.AddReleases(expected, "record");
        EXPECT_EQ(dispatch.platform.Calls(), expected);
    });
}

TEST(Wrapper, AcceptsThatTheRuntimeDecodesInPlace) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.script.copiesRecord = false;
        EXPECT_EQ(dispatch.Run(), kStatus);
        Lines expected = dispatch.UntilKept(dispatch.Buffer());
        expected.push_back(dispatch.Handled(dispatch.Buffer()));
        dispatch.AddReleases(expected, dispatch.Buffer());
        EXPECT_EQ(dispatch.platform.Calls(), expected);
    });
}

TEST(Wrapper, HandsTheDecodedRecordToTheDaemon) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        Json received;
        dispatch.script.handler = [&](const void *record) { received = ToJson(dispatch.type, record); };
        dispatch.Run();
        EXPECT_EQ(received, dispatch.json);
    });
}

TEST(Wrapper, ReturnsTheDaemonsStatusUnchanged) {
    ForEachMethod([](const ServedMethod &method) {
        for (const uint32_t status : {0U, 1U, 12U, 38U, 0xFFFFFFFFU}) {
            Dispatch dispatch(method);
            dispatch.script.handlerResult = status;
            EXPECT_EQ(dispatch.Run(), status);
        }
    });
}

TEST(Wrapper, WithoutRecordIs12AndTheDaemonIsNotCalled) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.script.decodes = false;
        EXPECT_EQ(dispatch.Run(), 12U);
        Lines expected = dispatch.UntilDecoded();
        if (dispatch.IsLarge()) {
            expected.push_back("RPC_IdlMsgFree(message 1, 0)");
        }
        EXPECT_EQ(dispatch.platform.Calls(), expected);
    });
}

TEST(Wrapper, OfAMalformedRequestIs12AndItsDecoderLogs) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.script.message.resize(3);
        EXPECT_EQ(dispatch.Run(), 12U);
        EXPECT_EQ(dispatch.platform.CountCalls(method.name), 0U);
        ASSERT_EQ(dispatch.platform.log.size(), 1U);
        EXPECT_EQ(dispatch.platform.log[0].function, "Tarn_sys_diag_" + method.request + "_unpack");
        EXPECT_EQ(dispatch.platform.log[0].text, "[VELTO]:Param invalid(nonNull, 3, nonNull)");
    });
}

TEST(Wrapper, ThatCannotKeepTheCodecTableReleasesTheRequestAndIs1) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.script.failsKeeping = true;
        EXPECT_EQ(dispatch.Run(), 1U);
        Lines expected = dispatch.UntilKept("record");
        dispatch.AddReleases(expected, "record");
        EXPECT_EQ(dispatch.platform.Calls(), expected);
    });
}

TEST(Wrapper, OfDBGCmdExecShowByTarndReleasesTheStringWhenTheTableCannotBeKept) {
    Dispatch dispatch(FindServed("DBGCmdExecShowByTarnd"));
    dispatch.script.failsKeeping = true;
    EXPECT_EQ(dispatch.Run(), 1U);
    EXPECT_EQ(dispatch.platform.Calls().back(),
              "XRT_OsalMemFree(block, Tarn_sys_diag_DbgCmdShowByTarndInput_free_unpacked)");
}

TEST(Wrapper, OfALargeRequestIs12WithoutAMessage) {
    for (const ServedMethod *const method : LargeMethods()) {
        Dispatch dispatch(*method);
        dispatch.script.failsNew = true;
        EXPECT_EQ(dispatch.Run(), 12U);
        EXPECT_EQ(dispatch.platform.Calls(), Lines{dispatch.UntilDecoded()[0]});
    }
}

TEST(Wrapper, OfALargeRequestReleasesItsMessageOnEveryPath) {
    Lines names;
    for (const ServedMethod *const method : LargeMethods()) {
        names.push_back(method->name);
        for (const int path : {0, 1, 2}) {
            Dispatch dispatch(*method);
            dispatch.script.copiesRecord = false;
            dispatch.script.decodes = path != 0;
            dispatch.script.failsKeeping = path == 1;
            dispatch.Run();
            EXPECT_EQ(dispatch.platform.CountCalls("RPC_IdlMsgFree"), 1U);
            EXPECT_EQ(dispatch.platform.Calls().back(), "RPC_IdlMsgFree(message 1, 0)");
        }
    }
    EXPECT_EQ(names, (Lines{"ZipLogFile", "CopyZipLogFile", "UpdateMsgCtrlRuleTarnd"}));
}

TEST(Wrapper, ClearsTheRecordBeforeItIsDecoded) {
    const Bytes empty = Encode(FindType("None"), Json::object()); // no slots: every member is absent
    ForEachMethod([&](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.script.message = empty;
        Json received;
        dispatch.script.handler = [&](const void *record) { received = ToJson(dispatch.type, record); };
        SoilStack();
        EXPECT_EQ(dispatch.Run(), kStatus);
        EXPECT_EQ(received, AbsentTable(dispatch.type));
    });
}

TEST(Wrapper, OfAMethodWithoutInputClearsNothingAndStillDecodes) {
    for (const char *const name : {"GetHugePagesInfo", "GetProcTable", "TarnGetDimMeasRstByTarnd"}) {
        Dispatch dispatch(FindServed(name));
        EXPECT_EQ(dispatch.Run(), kStatus);
        const Lines calls = dispatch.platform.Calls();
        EXPECT_EQ(calls[0], "memset_s(buffer, 0, 0, 0)");
        EXPECT_EQ(calls.back(), std::string(name) + "(record, replyCtx)");
    }
}

TEST(Wrapper, OfDetectTarndServerOnlinePassesARecordAndNoReplyContext) {
    Dispatch dispatch(FindServed("DetectTarndServerOnline"));
    EXPECT_EQ(dispatch.Run(), kStatus);
    EXPECT_EQ(dispatch.platform.Calls().back(), "DetectTarndServerOnline(record)");
}

TEST(Wrapper, CopiesTheRuntimesWordUnchanged) {
    ForEachMethod([](const ServedMethod &method) {
        Dispatch dispatch(method);
        dispatch.Run();
        EXPECT_EQ(dispatch.codec.pRuntimeWord, &runtimeWord);
        EXPECT_EQ(dispatch.platform.copied, sizeof(IdlServerCodecTable));
        EXPECT_EQ(memcmp(&dispatch.platform.kept, &dispatch.codec, sizeof dispatch.codec), 0);
    });
}

TEST(Wrapper, OfAMethodWithoutReplyLeavesSlots1To5AsTheyAre) {
    size_t num = 0;
    ForEachMethod([&](const ServedMethod &method) {
        if (!method.Replies()) {
            Dispatch dispatch(method);
            dispatch.Run();
            EXPECT_EQ(dispatch.codec.stCodec.pfnPack, nullptr);
            EXPECT_EQ(dispatch.codec.stCodec.pfnFreeUnpacked, nullptr);
            EXPECT_EQ(dispatch.codec.stCodec.pfnUsrFree, nullptr);
            EXPECT_EQ(dispatch.codec.stCodec.pfnFixedPack, nullptr);
            EXPECT_EQ(dispatch.codec.stCodec.pfnFixedSize, nullptr);
            dispatch.codec.stCodec.pfnUsrFree = kUntouched;
            dispatch.platform.calls.clear();
            dispatch.Run();
            EXPECT_EQ(dispatch.codec.stCodec.pfnUsrFree, kUntouched);
            ++num;
        }
    });
    EXPECT_EQ(num, 7U);
}

TEST(Wrapper, WritesEverySlotOfAMethodWithReply) {
    ForEachMethod([](const ServedMethod &method) {
        if (method.Replies()) {
            Dispatch dispatch(method);
            memset(&dispatch.codec.stCodec, 0xEE, sizeof dispatch.codec.stCodec);
            dispatch.script.failsKeeping = true;
            dispatch.Run();
            const bool fixed = FindType(method.response).packFixed != nullptr;
            EXPECT_EQ(dispatch.codec.stCodec.pfnUsrFree, method.usrFree);
            EXPECT_EQ(dispatch.codec.stCodec.pfnFixedPack != nullptr, fixed);
            EXPECT_EQ(dispatch.codec.stCodec.pfnFixedSize != nullptr, fixed);
        }
    });
}

TEST(Wrapper, TellsTheRuntimeTheMethodsReleaseOfReplies) {
    ForEachMethod([](const ServedMethod &method) {
        if (method.Replies()) {
            Dispatch dispatch(method);
            dispatch.Run();
            int reply;
            dispatch.platform.Name(&reply, "reply");
            dispatch.platform.kept.stCodec.pfnUsrFree(&reply);
            EXPECT_EQ(dispatch.platform.Calls().back(), method.name + "_free(reply)");
        }
    });
}

TEST(WrapperCodecs, DecodeTheRequest) {
    ForEachMethod([](const ServedMethod &method) {
        IdlCodecTable table;
        {
            Dispatch dispatch(method);
            dispatch.Run();
            table = dispatch.platform.kept.stCodec;
        }
        ExpectDecoderOf(FindType(method.request), table.pfnUnpack);
    });
}

TEST(WrapperCodecs, EncodeAndReleaseTheReply) {
    ForEachMethod([](const ServedMethod &method) {
        if (method.Replies()) {
            IdlCodecTable table;
            {
                Dispatch dispatch(method);
                dispatch.Run();
                table = dispatch.platform.kept.stCodec;
            }
            const Type &type = FindType(method.response);
            ExpectEncoderOf(type, table.pfnPack);
            ExpectReleaseOf(type, table.pfnFreeUnpacked);
            ExpectFixedFormOf(type, table.pfnFixedPack, table.pfnFixedSize);
        }
    });
}

TEST(WrapperCodecs, AreTheSameForMethodsOfTheSameTypes) {
    const auto tableOf = [](const char *name) {
        Dispatch dispatch(FindServed(name));
        dispatch.Run();
        IdlCodecTable table = dispatch.platform.kept.stCodec;
        EXPECT_EQ(table.pfnUsrFree, dispatch.method.usrFree);
        table.pfnUsrFree = nullptr;
        return table;
    };
    for (const auto &[one, other] : {std::pair("CalculateOsProcCpuUse", "CalculateProcThreadCpuUse"),
                                     std::pair("GetKpiCpuInfo", "GetKpiMemoryInfo")}) {
        const IdlCodecTable left = tableOf(one), right = tableOf(other);
        EXPECT_EQ(memcmp(&left, &right, sizeof left), 0) << one;
    }
}

TEST(WrapperRequest, OfPidIsOnlineWithoutSlotsIsForProcess0) {
    Dispatch dispatch(FindServed("PidIsOnline"));
    dispatch.script.message = Encode(FindType("None"), Json::object());
    uint32_t pid = 1;
    dispatch.script.handler = [&](const void *record) { memcpy(&pid, record, sizeof pid); };
    EXPECT_EQ(dispatch.Run(), kStatus);
    EXPECT_EQ(pid, 0U);
}

TEST(WrapperRequest, WithoutMembersMayCarryFields) {
    Dispatch dispatch(FindServed("SysCpuStatInfoQuery"));
    dispatch.script.message = Encode(FindType("ThreadCpuInput"), {{"uiValue1", 1}, {"uiValue2", 2}});
    EXPECT_EQ(dispatch.Run(), kStatus);
}

TEST(WrapperRequest, OfTheAgentsShorterFormHasTargetPid0) {
    for (const auto &[method, agentType] : {std::pair("SetMemDmgScanTarnd", "MemDmgScanIn"),
                                            std::pair("SetNoxTimerDebugSwitchByTarnd", "SetNoxTimerDebugSwitchInput"),
                                            std::pair("GetMirelMemHandleInfoByTarnd", "None")}) {
        Dispatch dispatch(FindServed(method));
        std::mt19937 random(1);
        const Json sent = RandomRecord(FindType(agentType), random, Filling::kFull);
        dispatch.script.message = Encode(FindType(agentType), sent);
        Json received;
        dispatch.script.handler = [&](const void *record) { received = ToJson(dispatch.type, record); };
        EXPECT_EQ(dispatch.Run(), kStatus);
        EXPECT_EQ(received, RecordOf(dispatch.type, sent)) << method;
        EXPECT_EQ(received.at("uiTargetPid"), 0) << method;
    }
}

TEST(WrapperRequest, WithAStringOneByteTooLongLeavesNothingAllocated) {
    Dispatch dispatch(FindServed("DBGCmdExecShowByTarnd"));
    dispatch.script.message = Encode(dispatch.type, RecordOf(dispatch.type, {{"pcCmdStr", "6162"}}));
    ASSERT_EQ(dispatch.script.message.back(), 0); // the terminator, which no reader needs
    dispatch.script.message.pop_back();
    EXPECT_EQ(dispatch.Run(), kStatus);
    dispatch.script.message.pop_back();
    EXPECT_EQ(dispatch.Run(), 12U);
    EXPECT_EQ(dispatch.platform.LiveBlocks(), 0U);
}

TEST(WrapperRequest, OfZipLogFileHasArraysOf256BytesWhichMayBeUnterminated) {
    const std::string full(2 * 256, '7');
    Dispatch dispatch(FindServed("ZipLogFile"));
    const Json sent = RecordOf(dispatch.type, {{"szLogPath", full}});
    Json received;
    dispatch.script.handler = [&](const void *record) { received = ToJson(dispatch.type, record); };
    Bytes &message = dispatch.script.message;
    message = Encode(dispatch.type, sent);
    EXPECT_EQ(dispatch.Run(), kStatus);
    EXPECT_EQ(received, sent);

    size_t count = 0; // of the first array: the first 256 that its bytes follow
    while (message[count] != 0 || message[count + 1] != 1 || message[count + 4] != 0x77) {
        ++count;
    }
    message[count] = 1; // 257
    EXPECT_EQ(dispatch.Run(), 12U);
    message[count] = 255;
    message[count + 1] = 0;
    EXPECT_EQ(dispatch.Run(), 12U);
}

TEST(WrapperRequest, WhoseNestedTableIsBeyondTheEndNeverReachesTheDaemon) {
    Dispatch dispatch(FindServed("SetDst"));
    Bytes &message = dispatch.script.message;
    message.resize(message.size() - 30); // into the last nested table
    EXPECT_EQ(dispatch.Run(), 12U);
    EXPECT_EQ(dispatch.platform.CountCalls("SetDst"), 0U);
}

TEST(WrapperRequest, OfUpdateMsgCtrlRuleWithoutScalarsKeepsItsArraysVerbatim) {
    Dispatch dispatch(FindServed("UpdateMsgCtrlRuleTarnd"));
    const std::string full(2 * 128, 'a');
    const Json sent = RecordOf(dispatch.type, {{"acRule1", full}, {"acRule2", full}, {"acRule3", full}});
    dispatch.script.message = Encode(dispatch.type, sent);
    Json received;
    dispatch.script.handler = [&](const void *record) { received = ToJson(dispatch.type, record); };
    EXPECT_EQ(dispatch.Run(), kStatus);
    EXPECT_EQ(received, sent);
}
