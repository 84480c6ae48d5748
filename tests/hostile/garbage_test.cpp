// Bytes that are no frames, connections that say nothing, and requests of those whom the policy allows nothing.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <random>

#include "tests/host/peer.h"
#include "tests/hostile/hostile.h"
#include "tests/hostile/rounds.h"

namespace {

// Mutates a valid request again and again, and sends it: a connection for each, since most end one.
int SendMutations(const std::filesystem::path &socket, unsigned seed, uint64_t count) {
    std::mt19937 random(seed);
    for (uint64_t i = 0; i < count; ++i) {
        std::vector<uint8_t> bytes = peer::OnlineRequest(i + 1, 1000);
        for (unsigned flips = 1 + random() % 8; flips > 0; --flips) {
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        }
        bytes.resize(1 + random() % bytes.size());
        peer::RawPeer(socket).TrySend(bytes);
    }
    return testing::Test::HasFailure() ? 1 : 0;
}

class AllowedGarbage : public kit::HostileTest<Unit> {
protected:
    std::string Policy() const override { return "reading anyone\nmemory anyone\n"; }
};

TEST_F(AllowedGarbage, HarmsNobodyElse) {
    kit::Attacker attacker([this] { return SendMutations(Socket(), 1, kit::Rounds(2000)); });
    kit::Latencies root;
    root.Measure(200, [this] { return Answers(); });
    EXPECT_EQ(root.Failed(), 0);
    EXPECT_EQ(attacker.Wait(), 0);
    EXPECT_TRUE(Answers());
}

using WithoutAPolicy = kit::HostileTest<Unit>;

TEST_F(WithoutAPolicy, OthersCannotEvenConnect) {
    kit::Attacker attacker([this] {
        host::Client client({.runDir = dir_.Path()});
        const Tarn_sys_diag_PidIsOnlineInput request{1};
        const auto bytes = kit::Encode<Unit>(request);
        return static_cast<int>(client
                                    .Call("TarnSysdiagTarnd", 0, "PidIsOnline",
                                          velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>, bytes,
                                          std::chrono::seconds(5))
                                    .errCode);
    });
    EXPECT_EQ(attacker.Wait(), EACCES);
    EXPECT_TRUE(Answers());
}

} // namespace
