// When a share of CPU time is an overload.
#include "host/daemon/cpu/crossing.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

// An overload with samples of one second.
class CrossingTest : public testing::Test {
protected:
    using Event = tarnd::Crossing::Event;

    Event Follow(uint32_t permille, const tarnd::Thresholds &thresholds) {
        auto sample = std::make_shared<tarnd::Sample>();
        sample->system.at = latest_->system.at + 1s;
        const tarnd::SamplePtr previous = std::exchange(latest_, std::move(sample));
        return crossing_.Follow(permille, thresholds, previous, latest_);
    }

    tarnd::SamplePtr latest_ = std::make_shared<tarnd::Sample>();
    tarnd::Crossing crossing_;
};

TEST_F(CrossingTest, BeginsWhenAShareHasLastedAndEndsBelowAnother) {
    const tarnd::Thresholds thresholds{800, 600, 3};
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(900, thresholds), Event::kNone);
    EXPECT_EQ(Follow(799, thresholds), Event::kNone) << "from the start";
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(800, thresholds), Event::kBegins);
    EXPECT_EQ(latest_->system.at - crossing_.Since()->system.at, 3s);
    EXPECT_EQ(Follow(600, thresholds), Event::kNone);
    EXPECT_TRUE(crossing_.Over());
    EXPECT_EQ(Follow(599, thresholds), Event::kEnds);
    EXPECT_FALSE(crossing_.Over());
    EXPECT_EQ(Follow(700, thresholds), Event::kNone);
}

TEST_F(CrossingTest, TakesTheLowestAndTheHighestThresholds) {
    EXPECT_EQ(Follow(1000, {0, 0, 0}), Event::kNone) << "0 is no threshold";
    EXPECT_EQ(Follow(999, {1000, 1000, 0}), Event::kNone);
    EXPECT_EQ(Follow(1000, {1000, 1000, 0}), Event::kBegins);
    EXPECT_EQ(Follow(1000, {0, 0, 0}), Event::kEnds) << "it is switched off";
    EXPECT_EQ(Follow(1, {1, 1, 0}), Event::kBegins);
    EXPECT_EQ(Follow(0, {1, 1, 0}), Event::kEnds);
    for (int second = 1; second < 3600; ++second) {
        ASSERT_EQ(Follow(1000, {1, 1, 3600}), Event::kNone);
    }
    EXPECT_EQ(Follow(1000, {1, 1, 3600}), Event::kBegins);
}

// A machine that was suspended, or a sampler that was kept waiting: one sample spans it all.
TEST_F(CrossingTest, CountsTheTimeBetweenSamplesAndNotTheirNumber) {
    auto late = std::make_shared<tarnd::Sample>();
    late->system.at = latest_->system.at + 10s;
    EXPECT_EQ(crossing_.Follow(900, {800, 800, 5}, latest_, late), Event::kBegins);
}

} // namespace
