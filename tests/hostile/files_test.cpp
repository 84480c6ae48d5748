// Files of others that the daemon reads: of any size, in any number, and as deep as they like.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <fcntl.h>
#include <sys/mman.h>

#include "host/meaning/choices.h"
#include "tests/hostile/hostile.h"
#include "tests/hostile/rounds.h"

namespace {

using namespace std::chrono_literals;

// Everyone may write where logs are, and make executables.
class HostileFiles : public kit::HostileTest<Unit> {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(chmod(logs_.c_str(), 01777), 0);
        }
    }
    std::vector<std::string> Options() const override { return {"--measure-rate", "0"}; }

    auto Zip(const std::string &name) {
        Tarn_sys_diag_ZiploginfoInput request{};
        kit::Set(request.szZipName, name);
        return Call<Tarn_sys_diag_Result>("ZipLogFile", request);
    }
};

// A file that takes no space, and hours to read.
int MakeEndless(const std::filesystem::path &path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0755);
    return ftruncate(fd, off_t{1} << 40) == 0 ? fd : -1;
}

TEST_F(HostileFiles, AnEndlessExecutableHoldsNoMeasurementUp) {
    const std::filesystem::path mapped = logs_ / "mapped";
    kit::Attacker attacker([this, &mapped] {
        const int fd = MakeEndless(logs_ / "endless");
        if (mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0) == MAP_FAILED) {
            return kit::kNotTried;
        }
        std::ofstream(mapped) << "is";
        pause();
        return 0;
    });
    ASSERT_TRUE(kit::Eventually([&] { return std::filesystem::exists(mapped); }));
    const auto answer = Call<Tarn_sys_diag_Result>(
        "TarnSetDimOpration", Tarn_sys_diag_DimSetIn{host::meaning::measurement_operation::kMeasure});
    EXPECT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiResult, 0);
    EXPECT_TRUE(Logged("measurement: left out: " + (logs_ / "endless").string() + ": 1099511627776 bytes"));
    const auto result = Call<Tarn_sys_diag_DimMeasRst>("TarnGetDimMeasRstByTarnd", Tarn_sys_diag_None{});
    EXPECT_NE(std::string(result->acMeasResult).find("1 left out"), std::string::npos) << result->acMeasResult;
}

TEST_F(HostileFiles, WhateverIsAmongTheLogsDoesNotKeepThemOutOfAnArchive) {
    std::ofstream(logs_ / "system.log") << "system";
    kit::Attacker attacker([this] {
        std::filesystem::path deep = logs_ / "deep";
        for (int i = 0; i != 100; ++i) {
            deep /= "d";
        }
        std::filesystem::create_directories(deep);
        return MakeEndless(logs_ / "endless") < 0 ? 1 : 0;
    });
    ASSERT_EQ(attacker.Wait(), 0);
    const auto answer = Zip("all.zip");
    EXPECT_EQ(answer->uiResult, 0);
    EXPECT_TRUE(answer.Explanation().starts_with("2 left out, the first of them deep/d/")) << answer.Explanation();
    EXPECT_EQ(Zip("all.zip")->uiResult, 0) << "it is replaced";
    EXPECT_EQ(Zip("system.log")->uiResult, EEXIST);
    EXPECT_EQ(kit::TextOfFile(logs_ / "system.log"), "system");
}

// With one worker, who waits for it is the next to be answered.
class HostileMemory : public HostileFiles {
protected:
    std::vector<std::string> Options() const override { return {"--workers", "1"}; }
    ~HostileMemory() override { std::filesystem::remove_all(files_); }

    const std::filesystem::path files_ = "/dev/shm/tarn-hostile-" + std::to_string(getpid());
};

TEST_F(HostileMemory, AWalkThatIsNotWantedAnyMoreHoldsNobodyUp) {
    kit::Attacker attacker([this] {
        std::filesystem::create_directory(files_);
        for (uint64_t i = 0; i < kit::Rounds(20'000, 400'000); ++i) {
            std::ofstream(files_ / std::to_string(i));
        }
        return 0;
    });
    ASSERT_EQ(attacker.Wait(), 0);
    const Tarn_sys_diag_SysOsMemFileInput request{0};
    kit::Latencies behind;
    for (int i = 0; i != 5; ++i) {
        const auto outcome =
            client_.Call("TarnSysdiagTarnd", 0, "GetSysOsMemFileList",
                         velto::kTypeHash<Tarn_sys_diag_SysOsMemFileInput>, kit::Encode<Unit>(request), 1ms);
        EXPECT_FALSE(outcome.Ok()) << "it takes longer than that";
        behind.Measure(1, [this] { return Answers(); });
    }
    EXPECT_EQ(behind.Failed(), 0);
    RecordProperty("longest_ms", static_cast<int>(behind.Longest().count()));
}

} // namespace
