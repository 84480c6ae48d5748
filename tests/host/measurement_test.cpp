// Measurement, against sha256sum and executables that the test changes: what the machine itself runs is measured too.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"

#include "host/meaning/choices.h"
#include "tests/host/daemon_kit.h"

namespace {

namespace measurement_operation = host::meaning::measurement_operation;
namespace measurement_state = host::meaning::measurement_state;

// Other processes of the machine come and go, so the tests look for a file of their own.
class MeasurementTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--state-dir", state_, "--measure-rate", "0"}; }

    // An executable of the test's own, and a process that runs it.
    std::unique_ptr<kit::Process> StartVictim() {
        if (!std::filesystem::exists(victim_)) {
            std::filesystem::copy_file("/bin/sleep", victim_);
            std::ofstream(victim_, std::ios::app) << getpid(); // other programs sleep too
        }
        return std::make_unique<kit::Process>(dir_.Path(), std::vector<std::string>{victim_, "1000"});
    }
    // Bytes behind the end of an executable change nothing but its digest.
    void ChangeVictim() {
        const std::filesystem::path other = dir_.Path() / "other";
        std::filesystem::copy_file(victim_, other);
        std::ofstream(other, std::ios::app) << "changed";
        std::filesystem::rename(other, victim_);
    }

    uint32_t Operate(uint32_t operation) {
        const auto answer = Call<Tarn_sys_diag_Result>("TarnSetDimOpration", Tarn_sys_diag_DimSetIn{operation});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }
    kit::Answer<Unit, Tarn_sys_diag_DimMeasRst> Result() {
        return Call<Tarn_sys_diag_DimMeasRst>("TarnGetDimMeasRstByTarnd", Tarn_sys_diag_None{});
    }
    uint32_t StateCode() { return Result()->uiValue1; }
    void SetTimes(uint8_t value1, uint8_t value2) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "TarnSetDimTimeCfgByTarnd",
                                    Tarn_sys_diag_DimTimeCfg{value1, value2}),
                  0);
    }
    void SetMode(uint32_t mode) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "TarnSetDimWorkModeCfgByTarnd",
                                    Tarn_sys_diag_DimWorkModeCfg{mode}),
                  0);
    }
    size_t Count(const std::string &line) const {
        const std::string log = daemon_->Err();
        size_t count = 0;
        for (size_t at = 0; (at = log.find(line + "\n", at)) != log.npos; ++at) {
            ++count;
        }
        return count;
    }

    const std::filesystem::path state_ = dir_.Path() / "state";
    const std::filesystem::path victim_ = dir_.Path() / "victim";
    const std::string changed_ = "measurement: changed: " + victim_.string();
    const std::string new_ = "measurement: new: " + victim_.string();
};

std::string Sha256Sum(const std::filesystem::path &path) {
    const std::unique_ptr<FILE, int (*)(FILE *)> sum(popen(("sha256sum " + path.string()).c_str(), "r"), pclose);
    char digest[65] = "";
    EXPECT_EQ(fread(digest, 1, 64, sum.get()), 64);
    return digest;
}

TEST_F(MeasurementTest, FindsAnExecutableThatWasChanged) {
    EXPECT_EQ(StateCode(), measurement_state::kNone);
    const auto first = StartVictim();
    ASSERT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(StateCode(), measurement_state::kNoBaseline);
    ASSERT_EQ(Operate(measurement_operation::kRecord), 0);
    EXPECT_EQ(StateCode(), measurement_state::kAsRecorded);
    const std::string before = Sha256Sum(victim_);
    EXPECT_NE(kit::TextOfFile(state_ / "measurement-baseline.json").find(before), std::string::npos);

    ASSERT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Count(changed_) + Count(new_), 0) << daemon_->Err();

    ChangeVictim();
    const auto second = StartVictim();
    ASSERT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Count(changed_), 1) << daemon_->Err();
    const auto result = Result();
    EXPECT_EQ(result->uiValue1, measurement_state::kDiffers);
    EXPECT_GE(result->uiValue2, 1);
    EXPECT_NE(std::string(result->acMeasResult).find(" changed, "), std::string::npos) << result->acMeasResult;

    ASSERT_EQ(Operate(measurement_operation::kRecord), 0);
    const std::string baseline = kit::TextOfFile(state_ / "measurement-baseline.json");
    EXPECT_NE(baseline.find(before), std::string::npos) << "the first process still runs it";
    EXPECT_NE(baseline.find(Sha256Sum(victim_)), std::string::npos);

    ASSERT_EQ(Operate(measurement_operation::kForget), 0);
    EXPECT_EQ(StateCode(), measurement_state::kNone);
    EXPECT_EQ(kit::TextOfFile(state_ / "measurement-baseline.json").find(before), std::string::npos);
}

TEST_F(MeasurementTest, RefusesWhatItDoesNotKnow) {
    EXPECT_EQ(Operate(0), EINVAL);
    EXPECT_EQ(Operate(6), EINVAL);
    SetTimes(24, 0);
    EXPECT_TRUE(Logged("hour (ucValue1) is 24"));
    SetTimes(23, 60);
    EXPECT_TRUE(Logged("minute (ucValue2) is 60"));
    SetMode(3);
    EXPECT_TRUE(Logged("mode (uiWorkMode) is 3"));
}

} // namespace
