#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "app/App.h"

namespace brisvale {
namespace {

TEST(AppClock, FirstTickDeltaEqualsTime) {
    App app;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const FrameInfo f = app.tick();
    EXPECT_GT(f.timeSeconds, 0.0f);
    EXPECT_EQ(f.deltaSeconds, f.timeSeconds);
    EXPECT_EQ(f.showDurationSeconds, 0.0f);
    EXPECT_EQ(f.renderEndSeconds, 0.0f);
}

TEST(AppClock, AClockStartedLaterReadsItsStartTimeAtOnce) {
    App app(142.5);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const FrameInfo f = app.tick();
    EXPECT_GT(f.timeSeconds, 142.5f);
    EXPECT_LT(f.timeSeconds, 143.5f);
    // The time before the start was never lived through: the first delta is the wait alone.
    EXPECT_GT(f.deltaSeconds, 0.0f);
    EXPECT_LT(f.deltaSeconds, 1.0f);
}

TEST(AppClock, TimeNeverDecreasesAndSumsItsDeltas) {
    App app;
    float previous = 0.0f;
    double sum = 0.0;
    for (int i = 0; i < 200; ++i) {
        const FrameInfo f = app.tick();
        EXPECT_GE(f.timeSeconds, previous);
        EXPECT_GE(f.deltaSeconds, 0.0f);
        sum += f.deltaSeconds;
        previous = f.timeSeconds;
    }
    EXPECT_NEAR(sum, previous, 1e-5);
}

TEST(AppClock, EndTimeIsTwoSinglePrecisionAdditions) {
    EXPECT_EQ(renderEndSecondsForAudio(0.0f), 3.75f);
    EXPECT_EQ(renderEndSecondsForAudio(120.0f), 123.75f);
    EXPECT_EQ(renderEndSecondsForAudio(1.0f), 4.75f);
    // 2^24 + 2: the first addition rounds (to 2^24 + 4), so two additions give
    // 2^24 + 4 where one addition of 3.75 would give 2^24 + 6.
    EXPECT_EQ(renderEndSecondsForAudio(16777218.0f), 16777220.0f);
}

} // namespace
} // namespace brisvale
