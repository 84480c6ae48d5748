// Black boxes that their users fill with what they like, and files that only have such names.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <cstring>

#include "host/blackbox/box.h"
#include "tests/hostile/hostile.h"
#include "tests/hostile/rounds.h"

namespace {

using host::blackbox::Box;
using host::blackbox::Entry;

// Fills a user's box with records as long as they can be.
int FillBox(const std::filesystem::path &runDir) {
    std::filesystem::path aside;
    const Box box(host::blackbox::FileOf(runDir, geteuid()), aside);
    for (uint32_t i = 0; i < host::blackbox::kSlotNum; ++i) {
        const Entry entry(box);
        auto &head = entry.Head();
        memset(&head, 'x', sizeof head);
        head.kind = host::blackbox::FaultKind::kException;
        head.timeNs = UINT64_MAX - i;
        entry.SealHead();
        memset(&entry.Stack(), 'x', sizeof entry.Stack());
        entry.SealStack();
    }
    return 0;
}

// Everyone may run agents, so the run directory is one that everyone may write.
class HostileBlackBox : public kit::HostileTest<Unit> {
protected:
    mode_t RunDirMode() const override { return kit::kForAll; }
    std::vector<std::string> Options() const override { return {"--state-dir", dir_.Path() / "state"}; }

    auto Exceptions(uint32_t skip = 0) {
        return Call<Tarn_sys_diag_ExceptionInfoResult>("GetExceptionInfo",
                                                       Tarn_sys_diag_ExceptionInfoCondition{0, skip, 0, 0});
    }
    template <class Answer>
    static std::string TextIn(const Answer &answer) {
        return {reinterpret_cast<const char *>(answer->pucInfo), answer->uiInfoLen};
    }
    static uint32_t RecordsIn(const std::string &text) {
        uint32_t records = 0;
        for (size_t at = 0; (at = text.find(", agent xxx", at)) != text.npos; ++at) {
            ++records;
        }
        return records;
    }
};

TEST_F(HostileBlackBox, JunkFilesFillNoReply) {
    kit::Attacker attacker([this] {
        for (uint64_t i = 0; i < kit::Rounds(3000, 60'000); ++i) {
            std::ofstream(host::blackbox::FileOf(dir_.Path(), static_cast<uint32_t>(100'000 + i)));
        }
        return FillBox(dir_.Path());
    });
    ASSERT_EQ(attacker.Wait(), 0);
    kit::Latencies listing;
    listing.Measure(5, [this] {
        const auto answer = Exceptions();
        return answer.Status() == 0 && answer->uiValue1 == host::blackbox::kSlotNum;
    });
    EXPECT_EQ(listing.Failed(), 0);
    RecordProperty("longest_ms", static_cast<int>(listing.Longest().count()));
    const std::string text = TextIn(Exceptions());
    EXPECT_EQ(RecordsIn(text), host::blackbox::kSlotNum);
    EXPECT_LT(text.substr(text.find("not read")).size(), 2000U);
    EXPECT_EQ(Call<Tarn_sys_diag_ResetBBoxResult>("ResetBBoxInfo", Tarn_sys_diag_ResetBBoxCondition{0, 0})->uiResult,
              0);
    EXPECT_EQ(Exceptions()->uiValue1, 0) << "junk is in nobody's way, nor that the file is another user's";
    daemon_->Stop();
    StartDaemon();
    EXPECT_EQ(Exceptions()->uiValue1, 0) << "it is gone for good";
    ASSERT_EQ(kit::Attacker([this] { return FillBox(dir_.Path()); }).Wait(), 0);
    EXPECT_EQ(Exceptions()->uiValue1, host::blackbox::kSlotNum) << "what is written later is shown";
}

TEST_F(HostileBlackBox, FullBoxesOfManyUsersComeInPages) {
    constexpr uint32_t kUsers = 7;
    for (uint32_t i = 0; i < kUsers; ++i) {
        ASSERT_EQ(kit::Attacker([this] { return FillBox(dir_.Path()); }, kit::kAttacker - i).Wait(), 0);
    }
    uint32_t shown = 0;
    for (bool more = true; more;) {
        const auto answer = Exceptions(shown);
        ASSERT_EQ(answer.Status(), 0) << answer.Text();
        EXPECT_EQ(answer->uiValue1, kUsers * host::blackbox::kSlotNum);
        const uint32_t records = RecordsIn(TextIn(answer));
        ASSERT_GT(records, 0U);
        shown += records;
        more = answer.Explanation() != "";
        if (more) {
            const uint32_t rest = kUsers * host::blackbox::kSlotNum - shown;
            EXPECT_EQ(answer.Explanation(), fmt::format("{} records have no room: go on with skip={}", rest, shown));
        }
    }
    EXPECT_EQ(shown, kUsers * host::blackbox::kSlotNum);
}

} // namespace
