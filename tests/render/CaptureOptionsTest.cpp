// brisvale-capture's command line and frame plan (no GPU).

#include "tools/capture/CaptureOptions.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace brisvale::capture {
namespace {

std::string errorOf(const std::vector<std::string>& arguments) {
    try {
        parseCaptureOptions(arguments);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

TEST(CaptureOptions, ParsesTimesSizeAndOutput) {
    const auto options = parseCaptureOptions({"demo.dat", "--size", "1280x720", "--at", "2,30,145.5", "-o", "out"});
    EXPECT_EQ(options.archivePath, "demo.dat");
    EXPECT_EQ(options.width, 1280u);
    EXPECT_EQ(options.height, 720u);
    EXPECT_EQ(options.times, (std::vector<float>{2.0f, 30.0f, 145.5f}));
    EXPECT_EQ(options.outputDirectory, "out");
}

TEST(CaptureOptions, RejectsWhatCannotBeCaptured) {
    EXPECT_EQ(errorOf({"--at", "1", "-o", "out"}), "No demo archive given");
    EXPECT_EQ(errorOf({"demo.dat", "--at", "1"}), "No output directory given (-o DIR)");
    EXPECT_EQ(errorOf({"demo.dat", "-o", "out"}), "No times given (--at or --from/--to)");
    EXPECT_EQ(errorOf({"demo.dat", "--at", "1,x", "-o", "out"}), "Invalid time: x");
    EXPECT_EQ(errorOf({"demo.dat", "--at", "1,", "-o", "out"}), "Invalid time: ");
    EXPECT_EQ(errorOf({"demo.dat", "--size", "1280", "--at", "1", "-o", "out"}), "Invalid size: 1280");
    EXPECT_EQ(errorOf({"demo.dat", "--size", "0x10", "--at", "1", "-o", "out"}), "Invalid size: 0");
    EXPECT_EQ(errorOf({"demo.dat", "--from", "1", "-o", "out"}), "--from and --to go together");
    EXPECT_EQ(errorOf({"demo.dat", "--from", "3", "--to", "1", "-o", "out"}), "--to is before --from");
    EXPECT_EQ(errorOf({"demo.dat", "--at", "1", "--from", "1", "--to", "2", "-o", "out"}),
              "--at and --from/--to exclude each other");
    EXPECT_EQ(errorOf({"demo.dat", "--fps", "0", "--at", "1", "-o", "out"}), "Invalid fps: 0");
    EXPECT_EQ(errorOf({"demo.dat", "--bogus", "-o", "out"}), "Unknown option: --bogus");
    EXPECT_EQ(errorOf({"demo.dat", "--at"}), "Missing value after --at");
}

TEST(CaptureOptions, TimesGiveOneFileEachWithTheGapAsDelta) {
    const auto options = parseCaptureOptions({"demo.dat", "--at", "2,30,145", "-o", "out"});
    const auto frames = planFrames(options, 50);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].fileName, "t2.000.png");
    EXPECT_FLOAT_EQ(frames[0].deltaSeconds, 1.0f / 50.0f);
    EXPECT_EQ(frames[1].fileName, "t30.000.png");
    EXPECT_FLOAT_EQ(frames[1].deltaSeconds, 28.0f);
    EXPECT_FLOAT_EQ(frames[2].timeSeconds, 145.0f);
    EXPECT_FLOAT_EQ(frames[2].deltaSeconds, 115.0f);
}

TEST(CaptureOptions, ARangeIsANumberedSequenceAtTheFrameRate) {
    const auto options = parseCaptureOptions({"demo.dat", "--from", "1", "--to", "2", "--fps", "4", "-o", "out"});
    const auto frames = planFrames(options, 60);
    ASSERT_EQ(frames.size(), 5u);  // 1, 1.25, 1.5, 1.75, 2
    EXPECT_EQ(frames[0].fileName, "frame-00000.png");
    EXPECT_EQ(frames[4].fileName, "frame-00004.png");
    EXPECT_FLOAT_EQ(frames[4].timeSeconds, 2.0f);
    for (const auto& frame : frames) EXPECT_FLOAT_EQ(frame.deltaSeconds, 0.25f);
    // Without --fps the show's own default applies.
    EXPECT_EQ(planFrames(parseCaptureOptions({"demo.dat", "--from", "0", "--to", "1", "-o", "out"}), 30).size(), 31u);
}

} // namespace
} // namespace brisvale::capture
