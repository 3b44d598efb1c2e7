// The render scale of --scale auto against simulated GPUs: frames whose time follows their pixels,
// read three frames late as the view reads them (three frames in flight), some shaped by frame
// times recorded on lavapipe on a busy machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "app/DynamicResolution.h"

namespace brisvale {
namespace {

constexpr double kInterval = 1.0 / 60.0;

// GPU times (ms) of consecutive frames at one scale, recorded on lavapipe with the default show
// in the intro and the middle while other work loaded the machine: spikes of two to four times
// the median, as a busy machine gives.
constexpr double kRecordedIntro[] = {88.9, 42.9, 79.1, 155.4, 94.2, 198.2, 55.1, 77.2, 50.2, 72.0, 83.3, 50.0,
                                     54.5, 58.2, 60.5, 124.6, 120.1, 56.6, 52.0, 64.6, 85.5, 55.8, 226.1, 57.0,
                                     75.1, 71.7, 62.7, 58.1, 102.2, 58.9, 71.3, 63.9, 56.8, 110.9, 66.3, 80.3,
                                     106.3, 129.5, 77.9, 64.6, 98.7, 141.9, 95.9, 61.8, 73.5, 95.4, 203.5, 218.4};
constexpr double kRecordedMiddle[] = {43.7, 42.5, 84.2, 46.4, 35.6, 80.6, 31.7, 32.0, 45.2, 26.9, 34.7, 51.4,
                                      47.0, 49.1, 48.7, 72.8, 36.2, 60.5, 40.6, 41.8, 43.3, 83.2, 44.7, 92.0,
                                      55.8, 26.8, 76.1, 48.3, 59.9, 46.5, 81.4, 54.9, 36.3, 66.3, 47.9, 96.8,
                                      55.4, 34.9, 27.9, 39.4, 39.4, 34.9, 25.9, 50.3, 50.6, 31.1, 26.6, 36.2};

// Seconds a frame takes: its index and the scale it was drawn at.
using Cost = std::function<double(std::size_t frame, float scale)>;

// Frames drawn through the controller; after each, the view reads the time of the frame three
// before it (0 until one has completed) and draws the next at the scale the controller returns.
struct Frames {
    std::vector<float> scales;  // the scale of each frame
    std::vector<double> times;  // the time each frame took

    Frames(DynamicResolution& controller, std::size_t frames, const Cost& cost) {
        float scale = controller.scale();
        for (std::size_t i = 0; i < frames; ++i) {
            scales.push_back(scale);
            times.push_back(cost(i, scale));
            scale = controller.frameDrawn(i >= 3 ? times[i - 3] : 0.0);
        }
    }
    std::size_t changesFrom(std::size_t first) const {
        std::size_t changes = 0;
        for (std::size_t i = first + 1; i < scales.size(); ++i) changes += scales[i] != scales[i - 1];
        return changes;
    }
    double medianTimeFrom(std::size_t first) const {
        std::vector<double> rest(times.begin() + static_cast<std::ptrdiff_t>(first), times.end());
        std::nth_element(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(rest.size() / 2), rest.end());
        return rest[rest.size() / 2];
    }
};

// A frame's time in proportion to its pixels: `fullSize` seconds at scale 1.
Cost pixels(double fullSize) {
    return [fullSize](std::size_t, float scale) { return fullSize * scale * scale; };
}

TEST(DynamicResolution, SettlesWhereAFrameTakesThreeQuartersOfTheIntervalAndStays) {
    // 40 ms at full size, 60 Hz: half size takes 10 ms; the next step up (0.561) would take
    // 12.6 ms, more than three quarters of 16.7 ms.
    DynamicResolution controller(kInterval);
    EXPECT_EQ(controller.scale(), 0.25f) << "starts at the bottom";
    const Frames slow(controller, 1000, pixels(0.040));
    EXPECT_EQ(slow.scales[60], 0.5f);
    EXPECT_EQ(slow.changesFrom(60), 0u);

    // A GPU with room to spare climbs to full size in a few windows; one that cannot keep up even
    // at a quarter of the size stays there.
    DynamicResolution fast(kInterval);
    const Frames quick(fast, 300, pixels(0.004));
    EXPECT_EQ(quick.scales[40], 1.0f);
    EXPECT_EQ(quick.changesFrom(40), 0u);
    DynamicResolution hopeless(kInterval);
    EXPECT_EQ(Frames(hopeless, 300, pixels(1.0)).changesFrom(0), 0u);
    EXPECT_EQ(hopeless.scale(), 0.25f);

    // The interval is the display's: at 30 Hz the 40 ms GPU fits at a larger scale (0.707:
    // 20 ms of 33 ms; 0.794 would take 25.2 ms).
    DynamicResolution thirty(1.0 / 30.0);
    EXPECT_NEAR(Frames(thirty, 300, pixels(0.040)).scales.back(), 0.7071, 1e-3);
}

TEST(DynamicResolution, RecordedFrameTimesSettleWhereTheyFitAndDoNotFlicker) {
    for (const auto& recording : {std::vector<double>(std::begin(kRecordedIntro), std::end(kRecordedIntro)),
                                  std::vector<double>(std::begin(kRecordedMiddle), std::end(kRecordedMiddle))}) {
        std::vector<double> sorted = recording;
        std::sort(sorted.begin(), sorted.end());
        const double median = sorted[sorted.size() / 2];
        // The recording's shape on a GPU whose median full-size frame takes 30 ms.
        const Cost cost = [&](std::size_t frame, float scale) {
            return 0.030 * scale * scale * recording[frame % recording.size()] / median;
        };
        DynamicResolution controller(kInterval);
        const Frames run(controller, 2000, cost);
        SCOPED_TRACE(testing::Message() << "settled at " << run.scales.back());
        EXPECT_LE(run.changesFrom(300), 2u);
        EXPECT_LE(run.medianTimeFrom(300), 0.9 * kInterval) << "frames do not fit";
        // Not needlessly small: where even the slowest recorded frame takes three quarters of
        // the interval, the scale is at least that.
        const double slowest = 0.030 * sorted.back() / median;
        const double fitsAlways = std::sqrt(0.75 * kInterval / slowest);
        EXPECT_GE(run.scales.back(), fitsAlways * 0.999);
    }
}

TEST(DynamicResolution, AStepUpThatProvesTooSlowIsTriedLessAndLessOften) {
    // A cost the pixel rule misjudges: up to 0.707 a frame takes 7 ms, above it 20 ms (say,
    // the picture no longer fits a cache). From 0.707 the next step looks affordable, and is not.
    const Cost cliff = [](std::size_t, float scale) { return scale > 0.75f ? 0.020 : 0.007; };
    DynamicResolution controller(kInterval);
    const Frames run(controller, 4000, cliff);
    std::vector<std::size_t> tries;  // frames where the scale went past the cliff
    for (std::size_t i = 1; i < run.scales.size(); ++i) {
        if (run.scales[i] > 0.75f && run.scales[i - 1] <= 0.75f) tries.push_back(i);
    }
    ASSERT_GE(tries.size(), 3u);
    EXPECT_LE(tries.size(), 8u);
    for (std::size_t k = 2; k < tries.size(); ++k) {
        EXPECT_GE(tries[k] - tries[k - 1], tries[k - 1] - tries[k - 2]) << "try " << k;
    }
    const auto atTheFittingStep = std::count_if(run.scales.begin() + 200, run.scales.end(),
                                                [](float s) { return std::abs(s - 0.7071f) < 1e-3f; });
    EXPECT_GE(atTheFittingStep, (4000 - 200) * 95 / 100);
    // A failed try goes straight back to where frames fitted, not below.
    EXPECT_NEAR(*std::min_element(run.scales.begin() + 200, run.scales.end()), 0.7071, 1e-3);
}

TEST(DynamicResolution, ReactsToASlowerSceneWithinAFewFramesAndIgnoresHitchesAndEmptyReadings) {
    DynamicResolution controller(kInterval);
    const Frames cheap(controller, 100, pixels(0.004));
    ASSERT_EQ(controller.scale(), 1.0f);
    const std::uint64_t changesBefore = controller.changes();

    // The scene gets ten times as heavy: down to half size (10 ms of 16.7) as soon as three
    // frames drawn after the change have been read.
    std::vector<float> scales;
    for (std::size_t i = 0; i < 3; ++i) scales.push_back(controller.frameDrawn(0.004));
    for (std::size_t i = 0; i < 3; ++i) scales.push_back(controller.frameDrawn(0.040));
    EXPECT_EQ(scales, (std::vector<float>{1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 0.5f}));

    // One slow frame in a window of fitting ones, and readings of no frame, change nothing.
    for (std::size_t i = 0; i < 3; ++i) controller.frameDrawn(0.0);  // settling after the change
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(controller.frameDrawn(i == 20 ? 0.5 : i % 5 == 0 ? 0.0 : 0.010), 0.5f) << "frame " << i;
    }
    EXPECT_EQ(controller.changes(), changesBefore + 1);
}

} // namespace
} // namespace brisvale
