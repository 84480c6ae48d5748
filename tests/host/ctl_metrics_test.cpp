// The figures for Prometheus, as its own tool reads them.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>

#include "host/metrics/exposition.h"
#include "tests/host/tasks_kit.h"

namespace {

using namespace kit;
using host::metrics::Exposition;
using host::metrics::Type;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

TEST(Exposition, EscapesWhatIsNotItsOwn) {
    Exposition out;
    out.Begin("tarn_x_total", Type::kCounter, "A \\ and\n\"a line\".");
    out.Add({{"a", "\"b\\\n\x01"}, {"c", ""}}, 1.5);
    out.Begin("tarn_y", Type::kGauge, "Y.");
    out.Add({}, 9007199254740993.0);
    out.Comment("why\nnot");
    EXPECT_EQ(out.Text(), "# HELP tarn_x_total A \\\\ and \"a line\".\n"
                          "# TYPE tarn_x_total counter\n"
                          "tarn_x_total{a=\"\\\"b\\\\ ?\",c=\"\"} 1.5\n"
                          "# HELP tarn_y Y.\n"
                          "# TYPE tarn_y gauge\n"
                          "tarn_y 9007199254740992\n"
                          "# why not\n");
}

std::string Written(const std::filesystem::path &file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

class Metrics : public Tasks {
protected:
    // What Prometheus's tool says of them; nothing where all is well.
    std::string Complaints() {
        const std::string file = dir_.Path() / "tarn.prom";
        std::ofstream(file) << Out("metrics");
        Process promtool(dir_.Path(), {"/bin/sh", "-c", PROMTOOL " check metrics <" + file + " 2>&1"});
        const int code = promtool.Wait();
        return code == 0 && promtool.Out().empty() ? "" : fmt::format("{}: {}", code, promtool.Out());
    }
};

TEST_F(Metrics, AreAcceptedByPromtool) {
    if (std::string_view(PROMTOOL).empty()) {
        GTEST_SKIP() << "no promtool here";
    }
    ASSERT_EQ(Run("call PidIsOnline process=1 --repeat 20"), 0) << error_;
    EXPECT_EQ(Complaints(), "");
    EXPECT_THAT(out_, HasSubstr("\ntarn_method_calls_total{service=\"TarnSysdiagTarnd\",method=\"PidIsOnline\"} "));
    EXPECT_THAT(out_, ContainsRegex("\ntarn_cpu_busy_ratio\\{cpu=\"cpu[0-9]+\"\\} [01]"));
    EXPECT_THAT(out_, Not(HasSubstr("{cpu=\"cpu\"}"))) << "all CPUs together would count twice in a sum";
    EXPECT_THAT(out_, ContainsRegex("\ntarn_memory_available_bytes [0-9.e+]+\n"));
    EXPECT_THAT(out_, ContainsRegex("\ntarn_health_level\\{item=\"memory\"\\} [0-3]\n"));
    EXPECT_THAT(out_, HasSubstr("\ntarn_refused_total{reason=\"denied\"} 0\n"));
    EXPECT_THAT(out_, Not(HasSubstr("tarn_metrics_unanswered{"))) << out_;
}

TEST_F(Metrics, HistogramsCountEachCall) {
    ASSERT_EQ(Run("call PidIsOnline process=1"), 0) << error_;
    const std::string labels = "{service=\"TarnSysdiagTarnd\",method=\"PidIsOnline\"";
    EXPECT_THAT(Out("metrics"), HasSubstr("tarn_method_duration_seconds_count" + labels + "} 1\n"));
    EXPECT_THAT(out_, HasSubstr("tarn_method_duration_seconds_bucket" + labels + ",le=\"+Inf\"} 1\n"));
    EXPECT_THAT(out_, HasSubstr("tarn_method_duration_seconds_bucket" + labels + ",le=\"4.096e-06\"} "));
}

TEST_F(Metrics, TellWhenSomethingHappened) {
    const auto before = std::chrono::system_clock::now();
    ASSERT_EQ(Run("settings set cpu.begins-at=90% cpu.must-last=10s"), 0) << error_;
    const std::string mark = "\ntarn_last_event_timestamp_seconds{kind=\"setting\"} ";
    ASSERT_TRUE(Eventually([&] { return Out("metrics").find(mark) != std::string::npos; })) << out_;
    const double time = std::stod(out_.substr(out_.find(mark) + mark.size()));
    EXPECT_NEAR(time, std::chrono::duration<double>(before.time_since_epoch()).count(), 60);
}

// The names of metrics in a text, without the suffixes of a histogram's samples.
std::set<std::string> NamesIn(const std::string &text) {
    static const std::regex name("tarn_[a-z_]+?(?=(_bucket|_sum|_count)?[^a-z_])");
    std::set<std::string> names;
    for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at) {
        names.insert(at->str());
    }
    return names;
}

TEST_F(Metrics, AreThoseOfTheAlertsTheDashboardAndTheDocumentation) {
    const std::set<std::string> told = NamesIn(Out("metrics"));
    EXPECT_GT(told.size(), 20u);
    for (const char *file : {"contrib/alerts.yml", "contrib/dashboard.json", "docs/metrics.md"}) {
        const std::set<std::string> named = NamesIn(Written(std::filesystem::path(SOURCES) / file));
        EXPECT_GT(named.size(), 5u) << file;
        EXPECT_TRUE(std::ranges::includes(told, named)) << file << ": " << fmt::format("{}", fmt::join(named, " "));
    }
    EXPECT_EQ(NamesIn(Written(std::filesystem::path(SOURCES) / "docs/metrics.md")), told);
    EXPECT_FALSE(Json::parse(Written(std::filesystem::path(SOURCES) / "contrib/dashboard.json"))["panels"].empty());
}

TEST_F(Metrics, WithoutADaemonThereAreNone) {
    daemon_.reset();
    EXPECT_EQ(Run("metrics"), 3);
    EXPECT_EQ(out_, "") << "a part would pass for all";
}

} // namespace
