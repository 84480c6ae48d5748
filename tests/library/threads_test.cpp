// Many threads in the library at once. Each thread has a platform of its own: what they share is the library.
#include <gtest/gtest.h>

#include <barrier>
#include <cstring>
#include <thread>

#include "tests/codec/record.h"
#include "tests/library/methods.h"
#include "tests/library/platform.h"

namespace {
constexpr int kThreads = 16;

template <class Work>
void OnAllThreads(Work work) {
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] { work(start); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// A type's record and message, made before the threads start.
struct Sample {
    explicit Sample(const std::string &name)
        : type(&FindType(name)), json(Make(*type)), message(Encode(*type, json)), record(*type, json) {}
    static Json Make(const Type &type) {
        std::mt19937 random(type.hash);
        return RandomRecord(type, random, Filling::kFull);
    }
    uint32_t Length() const { return static_cast<uint32_t>(message.size()); }

    const Type *type;
    Json json;
    Bytes message;
    Record record;
};

const Sample &SampleOf(const std::string &name) {
    static const std::map<std::string, Sample> samples = [] {
        std::map<std::string, Sample> all;
        for (const Type &type : velto::Registry()) {
            all.emplace(type.name, type.name);
        }
        return all;
    }();
    return samples.at(name);
}

bool Encodes(VeltoPackFn pack, const void *record, const Sample &sample) {
    Bytes bytes(sample.message.size());
    uint32_t capacity = sample.Length();
    const VeltoOutBuf out{bytes.data(), &capacity};
    return pack(&out, record) == bytes.size() && bytes == sample.message;
}

// Decodes, compares by encoding again, and releases.
bool Decodes(const IdlCodecTable &table, const Sample &sample) {
    std::vector<uint64_t> record(sample.type->shape->size / 8 + 1);
    if (table.pfnUnpack(sample.message.data(), sample.Length(), record.data()) == nullptr) {
        return false;
    }
    const bool same = Encodes(sample.type->pack, record.data(), sample);
    table.pfnFreeUnpacked(record.data());
    return same && Platform::Get().LiveBlocks() == 0;
}

bool WritesFixedForm(const IdlCodecTable &table, const Sample &sample) {
    if (table.pfnFixedSize == nullptr) {
        return table.pfnFixedPack == nullptr;
    }
    const Block written(table.pfnFixedSize()), expected(table.pfnFixedSize());
    table.pfnFixedPack(written.data(), sample.record.get());
    sample.type->packFixed(expected.data(), sample.record.get());
    return memcmp(written.data(), expected.data(), written.size) == 0;
}

void Callback(const IdlCallResult *, void *, void *) {}

void CallProxy(const ProxyMethod &method) {
    Platform &platform = Platform::Get();
    const Sample &request = SampleOf(method.request);
    platform.Start();
    const Block out(method.Replies() ? SampleOf(method.response).type->shape->size : 0);
    platform.script.callResult = {1, 2};
    EXPECT_EQ(method.call(request.record.get(), out.data(), nullptr).uiErrCode, 2U) << method.name;
    EXPECT_EQ(method.async(request.record.get(), Callback, nullptr, nullptr), 0U) << method.name;
    EXPECT_EQ(platform.method, method.name);
    if (method.oneway != nullptr) {
        platform.script.onewayResult = 3;
        EXPECT_EQ(method.oneway(request.record.get(), nullptr), 3U) << method.name;
    }
    const IdlCodecTable table = platform.codec;
    EXPECT_TRUE(Encodes(table.pfnPack, request.record.get(), request)) << method.name;
    EXPECT_TRUE(WritesFixedForm(table, request)) << method.name;
    EXPECT_TRUE(!method.Replies() || Decodes(table, SampleOf(method.response))) << method.name;
    EXPECT_TRUE(platform.misuse.empty()) << method.name;
}

void CallWrapper(const ServedMethod &method) {
    Platform &platform = Platform::Get();
    const Sample &request = SampleOf(method.request);
    platform.Start();
    platform.script.message = request.message;
    platform.script.recordSize = request.type->shape->size;
    platform.script.handlerResult = 38;
    platform.script.handler = [&](const void *record) {
        EXPECT_TRUE(Encodes(request.type->pack, record, request)) << method.name;
    };
    IdlServerCodecTable codec = {};
    int replyCtx;
    EXPECT_EQ(method.wrapper(&codec, &replyCtx, &codec), 38U) << method.name;
    EXPECT_EQ(platform.CountCalls(method.name), 1U) << method.name;
    EXPECT_EQ(platform.LiveBlocks(), 0U) << method.name;
    if (method.Replies()) {
        const Sample &reply = SampleOf(method.response);
        EXPECT_TRUE(Encodes(platform.kept.stCodec.pfnPack, reply.record.get(), reply)) << method.name;
        EXPECT_TRUE(WritesFixedForm(platform.kept.stCodec, reply)) << method.name;
    }
    EXPECT_TRUE(platform.misuse.empty()) << method.name;
}
} // namespace

// The first in this file: no codec of the library has been called yet.
TEST(Threads, ThatEnterAUnitFirstResolveItOnce) {
    const Sample &timezone = SampleOf("GetTimezoneOutput"), &task = SampleOf("GetTaskInfoInput");
    const Sample &diagnosis = SampleOf("DiagResult");
    const unsigned before = UseFlagQueries();
    OnAllThreads([&](std::barrier<> &start) {
        Platform &platform = Platform::Get();
        IdlCodecTable agent, master;
        FindProxy("DBGCmdExecResultGet").setIdl(&agent);
        FindProxy("GetTimezone").setIdl(&master);
        platform.script.message = task.message;
        platform.script.recordSize = task.type->shape->size;
        IdlServerCodecTable server = {};
        start.arrive_and_wait();
        EXPECT_TRUE(Decodes(agent, diagnosis));
        start.arrive_and_wait();
        EXPECT_TRUE(Decodes(master, timezone));
        start.arrive_and_wait();
        FindServed("GetTaskInfo").wrapper(&server, &server, &server);
        start.arrive_and_wait();
        EXPECT_EQ(agent.pfnUnpack(nullptr, 0, nullptr), nullptr);
        EXPECT_EQ(master.pfnUnpack(nullptr, 0, nullptr), nullptr);
        EXPECT_EQ(server.stCodec.pfnUnpack(nullptr, 0, nullptr), nullptr);
        EXPECT_EQ(platform.log.size(), 3U);
        EXPECT_EQ(platform.CountCalls("XRT_OsalMemFree"), 2U) << "the strings of the agent's reply and of the request";
        EXPECT_TRUE(platform.misuse.empty());
    });
    EXPECT_EQ(UseFlagQueries() - before, 3U) << "one for each unit";
}

TEST(Threads, CallAllProxiesWrappersAndCodecsAtOnce) {
    constexpr int kRounds = 10;
    SampleOf("None"); // makes all
    ProxyMethods();
    ServedMethods();
    OnAllThreads([](std::barrier<> &start) {
        start.arrive_and_wait();
        for (int round = 0; round < kRounds; ++round) {
            for (const ProxyMethod &method : ProxyMethods()) {
                CallProxy(method);
            }
            for (const ServedMethod &method : ServedMethods()) {
                CallWrapper(method);
            }
        }
    });
}
