// brisvale-capture's command line and frame plan (no GPU).

#include "tools/capture/CaptureOptions.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace brisvale::capture {
namespace {

// The message of the CaptureOptionError that `call` throws, or "<no error>".
template <class Call>
std::string failure(Call&& call) {
    try {
        call();
    } catch (const CaptureOptionError& e) {
        return e.what();
    }
    return "<no error>";
}

std::string errorOf(const std::vector<std::string>& arguments) {
    return failure([&] { parseCaptureOptions(arguments); });
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
    const FramePlan frames(options, 50);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames.frame(0).fileName, "t2.000.png");
    EXPECT_FLOAT_EQ(frames.frame(0).deltaSeconds, 1.0f / 50.0f);
    EXPECT_EQ(frames.frame(1).fileName, "t30.000.png");
    EXPECT_FLOAT_EQ(frames.frame(1).deltaSeconds, 28.0f);
    EXPECT_FLOAT_EQ(frames.frame(2).timeSeconds, 145.0f);
    EXPECT_FLOAT_EQ(frames.frame(2).deltaSeconds, 115.0f);
    // Times closer than three decimals still get files of their own; one time twice is refused.
    const FramePlan close(parseCaptureOptions({"demo.dat", "--at", "1.0001,1.0004,-0.5", "-o", "out"}), 50);
    EXPECT_EQ(close.frame(0).fileName, "t1.0001.png");
    EXPECT_EQ(close.frame(1).fileName, "t1.0004.png");
    EXPECT_EQ(close.frame(2).fileName, "t-0.500.png");
    EXPECT_EQ(failure([] { FramePlan(parseCaptureOptions({"demo.dat", "--at", "1,1.00000001", "-o", "out"}), 50); }),
              "--at gives the time 1.000 twice");
}

TEST(CaptureOptions, ARangeIsANumberedSequenceAtTheFrameRate) {
    const auto options = parseCaptureOptions({"demo.dat", "--from", "1", "--to", "2", "--fps", "4", "-o", "out"});
    const FramePlan frames(options, 60);
    ASSERT_EQ(frames.size(), 5u);  // 1, 1.25, 1.5, 1.75, 2
    EXPECT_EQ(frames.frame(0).fileName, "frame-00000.png");
    EXPECT_EQ(frames.frame(4).fileName, "frame-00004.png");
    EXPECT_FLOAT_EQ(frames.frame(4).timeSeconds, 2.0f);
    for (std::uint64_t i = 0; i < frames.size(); ++i) EXPECT_FLOAT_EQ(frames.frame(i).deltaSeconds, 0.25f);
    // Without --fps the show's own default applies.
    EXPECT_EQ(FramePlan(parseCaptureOptions({"demo.dat", "--from", "0", "--to", "1", "-o", "out"}), 30).size(), 31u);
    // 29.9 is a little less as a float; the frame at 29.9 s is still the last.
    EXPECT_EQ(FramePlan(parseCaptureOptions({"demo.dat", "--from", "0", "--to", "29.9", "--fps", "10", "-o", "out"}), 30).size(),
              300u);
}

// A video covers [from, to): ceil((to - from) * fps) frames, by default from 0 to the show's end.
TEST(CaptureOptions, AVideoSpansTheShowUpToItsEnd) {
    auto video = [](std::vector<std::string> more) {
        std::vector<std::string> arguments{"demo.dat", "--video", "out.MP4"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return parseCaptureOptions(arguments);
    };
    const FramePlan whole(video({}), 10, 4.75f);
    ASSERT_EQ(whole.size(), 48u);
    EXPECT_FLOAT_EQ(whole.frame(47).timeSeconds, 4.7f);
    EXPECT_FLOAT_EQ(whole.frame(47).deltaSeconds, 0.1f);
    EXPECT_EQ(FramePlan(video({"--from", "0.1", "--to", "0.3", "--fps", "10"}), 30, 4.75f).size(), 2u);
    const FramePlan late(video({"--from", "2.5", "--fps", "4"}), 30, 4.75f);
    EXPECT_EQ(late.size(), 9u);
    EXPECT_FLOAT_EQ(late.frame(8).timeSeconds, 4.5f);
    EXPECT_EQ(video({"--quality", "18", "--codec", "libsvtav1"}).quality, 18);

    EXPECT_EQ(errorOf({"demo.dat", "--video", "out.avi"}), "Unknown video file type: out.avi (use .mp4, .webm or .mkv)");
    EXPECT_EQ(errorOf({"demo.dat", "--video", "out.mp4", "--from", "2", "--to", "2"}), "--from is not before --to");
    EXPECT_EQ(errorOf({"demo.dat", "--video", "out.mp4", "--at", "1"}), "--video and --at exclude each other");
    EXPECT_EQ(errorOf({"demo.dat", "--at", "1", "--quality", "20", "-o", "out"}), "--quality and --codec go with --video");
    EXPECT_EQ(errorOf({"demo.dat", "--video", "out.mp4", "--quality", "high"}), "Invalid quality: high");
    EXPECT_EQ(failure([&] { FramePlan(video({}), 30, 0.0f); }), "The show has no music and so no end; give --to");
    EXPECT_EQ(failure([&] { FramePlan(video({"--from", "5"}), 30, 4.75f); }),
              "--from 5 is not before the show's end at 4.75 s");
}

// Frames are made as they are asked for; what float show times cannot hold apart is refused.
TEST(CaptureOptions, RangesAreBoundedByWhatShowTimesCanTellApart) {
    auto plan = [](const std::string& from, const std::string& to, const std::string& fps) {
        return FramePlan(parseCaptureOptions({"demo.dat", "--from", from, "--to", to, "--fps", fps, "-o", "out"}), 60);
    };
    const FramePlan longest = plan("0", "1024", "8192");  // float steps of 1/8192 s just below 1024
    EXPECT_EQ(longest.size(), 8388609u);
    EXPECT_EQ(longest.frame(8388608).fileName, "frame-8388608.png");
    EXPECT_NE(longest.frame(8388607).timeSeconds, longest.frame(8388608).timeSeconds);
    EXPECT_EQ(failure([&] { plan("0", "1024", "16384"); }),
              "Show times near 1024 s are 0.00012207 s apart, more than a frame at 16384 fps");

    // The show's defaults are held to the ranges of --fps and --size.
    const auto range = parseCaptureOptions({"demo.dat", "--from", "0", "--to", "1", "-o", "out"});
    EXPECT_EQ(failure([&] { FramePlan(range, 4294967295u); }),
              "The show's default frame rate 4294967295 is out of range (1 to 16384); give --fps");
    EXPECT_EQ(failure([&] { captureSize(range, 65536, 65536); }),
              "The show's default size 65536x65536 is out of range (1 to 16384 per side); give --size");
    EXPECT_EQ(captureSize(range, 16384, 1).width, 16384u);
    const auto sized = parseCaptureOptions({"demo.dat", "--size", "64x32", "--at", "1", "-o", "out"});
    EXPECT_EQ(captureSize(sized, 65536, 65536).height, 32u);
}

} // namespace
} // namespace brisvale::capture
