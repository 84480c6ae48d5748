// A daemon's memory after very many calls of all sizes: what they took is given back.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <cinttypes>
#include <cmath>
#include <random>

#include <fmt/format.h>

#include "tests/host/daemon_kit.h"

namespace {

using namespace kit;

constexpr size_t kClients = 8;
constexpr size_t kFirst = 1000, kUsually = 4000; // with TARN_CALLS, more
constexpr double kLargest = 1 << 20;             // bytes of a request

uint64_t ResidentKib(uint32_t pid) {
    std::ifstream file(fmt::format("/proc/{}/statm", pid));
    uint64_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

size_t CallNum() {
    const char *const given = getenv("TARN_CALLS");
    return given == nullptr ? kUsually : std::strtoul(given, nullptr, 10);
}

class FlatMemory : public DaemonTest<Unit> {
protected:
    const char *LogLevel() const override { return "info"; }

    // As many small sizes as large ones, by magnitude.
    static size_t AnySize(std::mt19937_64 &random, double largest) {
        return static_cast<size_t>(std::exp(std::uniform_real_distribution(0.0, std::log(largest))(random)));
    }

    // A text of 4.6 times the size.
    uint32_t CallForLargeReply(host::Client &client, size_t size) {
        Tarn_sys_diag_DumpOsProcMemValueInput request{};
        request.uiPid = static_cast<uint32_t>(getpid());
        request.ullAddress = reinterpret_cast<uint64_t>(read_.data());
        request.ullLength = size;
        return kit::Call<Unit, Tarn_sys_diag_DumpOsProcMemValueResult>(client, "TarnSysdiagTarnd", 0,
                                                                       "DumpOsProcMemValue", request)
            .Status();
    }

    static uint32_t CallWithLargeRequest(host::Client &client, size_t size) {
        std::string names(size, 'x');
        Tarn_sys_diag_GetTaskInfoInput request{};
        request.uiTaskParam1 = static_cast<uint32_t>(getpid());
        request.pcTaskName = names.data();
        return kit::Call<Unit, Tarn_sys_diag_GetTaskInfoResult>(client, "TarnSysdiagTarnd", 0, "GetTaskInfo", request)
            .Status();
    }

    void Call(size_t callNum, uint64_t seed) {
        host::Client client({.runDir = dir_.Path()});
        std::mt19937_64 random(seed);
        for (size_t i = 0; i < callNum; ++i) {
            const uint32_t status = random() % 2 == 0 ? CallForLargeReply(client, AnySize(random, kRead))
                                                      : CallWithLargeRequest(client, AnySize(random, kLargest));
            ASSERT_EQ(status, 0) << "call " << i << " of client " << seed;
        }
    }

    void CallFromAll(size_t callNum) {
        std::vector<std::thread> clients;
        for (size_t i = 0; i < kClients; ++i) {
            clients.emplace_back([this, i, callNum] { Call(callNum / kClients, i); });
        }
        for (std::thread &client : clients) {
            client.join();
        }
    }

    static constexpr size_t kRead = 65536;
    const std::vector<uint8_t> read_ = std::vector<uint8_t>(kRead, 'x');
};

TEST_F(FlatMemory, AfterManyCallsOfAllSizes) {
    CallFromAll(kFirst);
    const uint64_t first = ResidentKib(daemon_->Pid());
    CallFromAll(CallNum() - kFirst);
    const uint64_t after = ResidentKib(daemon_->Pid());
    const auto hasReturned = [&] { return ResidentKib(daemon_->Pid()) <= first + first / 10; };
    EXPECT_TRUE(Await("memory is at most a tenth more than after the first thousand calls", hasReturned));
    printf("resident: %" PRIu64 " KiB after %zu calls, %" PRIu64 " after %zu, then %" PRIu64 " idle\n", first, kFirst,
           after, CallNum(), ResidentKib(daemon_->Pid()));
}

} // namespace
