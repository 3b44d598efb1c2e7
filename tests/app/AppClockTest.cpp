// The show clock, and author mode's time control built on it (ShowTransport) driven against a
// music transport that answers as the audio library does.
//
// [SECTION] The show clock
// [SECTION] Author mode's time control

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "app/App.h"
#include "app/ShowTransport.h"

namespace brisvale {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] The show clock
// ---------------------------------------------------------------------------------------------

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
    EXPECT_EQ(renderEndSecondsForAudio(120.0f), 123.75f);  // 0 and 1: the view's end-of-show tests
    // 2^24 + 2: the first addition rounds (to 2^24 + 4), so two additions give
    // 2^24 + 4 where one addition of 3.75 would give 2^24 + 6.
    EXPECT_EQ(renderEndSecondsForAudio(16777218.0f), 16777220.0f);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Author mode's time control
// ---------------------------------------------------------------------------------------------

// The audio player's transport as the library answers it: positions fall on the sample grid
// (a coarse one here, so that the music's answer differs from the time asked for), a seek
// clamps to the last frame and revives a finished player paused, a finished player answers -1.
class ScriptedMusic final : public ShowMusic {
public:
    double rate = 10.0;
    double length = 10.0;
    bool present = true;
    double position = 0.0;
    bool playing = true;
    bool done = false;
    std::vector<std::string> calls;

    bool pauseMusic() override {
        calls.push_back("pause");
        if (!present || done || !playing) return false;
        playing = false;
        return true;
    }
    bool resumeMusic() override {
        calls.push_back("resume");
        if (!present || (done && !playing)) return false;
        playing = true;
        return true;
    }
    bool seekMusic(double seconds) override {
        calls.push_back("seek " + std::to_string(seconds));
        if (!present) return false;
        const double last = (std::floor(length * rate) - 1) / rate;
        position = std::min(std::floor(std::clamp(seconds, 0.0, length) * rate) / rate, last);
        if (done) playing = false;
        done = false;
        return true;
    }
    double musicSeconds() override { return present && !done ? position : -1.0; }
    bool musicDone() override { return !present || done; }
};

constexpr double kFrame = 1.0 / 60.0;

TEST(ShowTransport, PauseHoldsWhereTheMusicStoppedAndResumePlaysOnFromThere) {
    ScriptedMusic music;
    ShowTransport transport(music, kFrame);
    transport.start(0.0, 10.0f, 13.75f);
    EXPECT_LT(transport.tick().timeSeconds, 1.0f);

    music.position = 2.5;  // where the music says it stopped
    transport.togglePause();
    EXPECT_TRUE(transport.paused());
    const FrameInfo held = transport.tick();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const FrameInfo later = transport.tick();
    EXPECT_EQ(held.timeSeconds, 2.5f);
    EXPECT_EQ(later.timeSeconds, 2.5f);
    EXPECT_EQ(later.deltaSeconds, 0.0f);

    transport.togglePause();
    EXPECT_FALSE(transport.paused());
    const FrameInfo resumed = transport.tick();
    EXPECT_GE(resumed.timeSeconds, 2.5f);
    EXPECT_LT(resumed.timeSeconds, 3.5f);
    EXPECT_EQ(music.calls, (std::vector<std::string>{"pause", "resume"}));
}

TEST(ShowTransport, MovesSeekTheMusicAndSetTheClockFromItsAnswer) {
    ScriptedMusic music;
    ShowTransport transport(music, kFrame);
    transport.start(1.04, 10.0f, 13.75f);
    transport.moveBy(5.0);
    ASSERT_FALSE(music.calls.empty());
    EXPECT_EQ(music.calls.back().rfind("seek 6.04", 0), 0u) << music.calls.back();
    const FrameInfo moved = transport.tick();
    EXPECT_GE(moved.timeSeconds, 6.0f);  // the music's 6.0, not the 6.04 asked for
    EXPECT_LT(moved.timeSeconds, 6.04f);
    EXPECT_FALSE(transport.paused());

    // Back past the beginning: 0. On past the end: the end, which the music (ending earlier)
    // cannot tell, and which holds.
    transport.moveBy(-100.0);
    EXPECT_EQ(music.calls.back(), "seek 0.000000");
    EXPECT_LT(transport.tick().timeSeconds, 1.0f);
    transport.moveBy(100.0);
    EXPECT_EQ(music.calls.back(), "seek 13.750000");
    EXPECT_GE(transport.tick().timeSeconds, 13.75f);
    EXPECT_TRUE(transport.holdingEnd());
}

TEST(ShowTransport, FramesStepOnlyWhilePausedAndHomeKeepsThePause) {
    ScriptedMusic music;
    music.rate = 44100.0;
    ShowTransport transport(music, kFrame);
    transport.start(3.0, 10.0f, 13.75f);
    transport.step(1);
    EXPECT_TRUE(music.calls.empty()) << "a step while playing";

    music.position = 3.0;
    transport.togglePause();
    transport.step(1);
    EXPECT_EQ(music.calls.back(), "seek " + std::to_string(3.0 + kFrame));
    EXPECT_EQ(transport.tick().timeSeconds, static_cast<float>(music.position));
    EXPECT_NEAR(transport.tick().timeSeconds, 3.0 + kFrame, 1.0 / 44100.0);
    transport.step(-2);
    EXPECT_NEAR(transport.tick().timeSeconds, 3.0 - kFrame, 2.0 / 44100.0);
    EXPECT_TRUE(transport.paused());
    EXPECT_EQ(transport.tick().deltaSeconds, 0.0f);

    // Home while paused stays paused, at 0.
    transport.goToStart();
    EXPECT_TRUE(transport.paused());
    EXPECT_EQ(transport.tick().timeSeconds, 0.0f);
    EXPECT_EQ(std::count(music.calls.begin(), music.calls.end(), "resume"), 0);
}

TEST(ShowTransport, TheEndHoldsItsFrameAndHomeOrSpacePlaysFromTheStart) {
    for (const bool withSpace : {false, true}) {
        ScriptedMusic music;
        music.done = true;  // the song ran out before the show's end
        ShowTransport transport(music, kFrame);
        transport.start(13.7, 10.0f, 13.75f);
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        const FrameInfo last = transport.tick();
        EXPECT_GE(last.timeSeconds, 13.75f);
        EXPECT_TRUE(transport.holdingEnd());
        EXPECT_TRUE(transport.paused());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const FrameInfo held = transport.tick();
        EXPECT_EQ(held.timeSeconds, last.timeSeconds);
        EXPECT_EQ(held.deltaSeconds, 0.0f);

        if (withSpace) {
            transport.togglePause();
        } else {
            transport.goToStart();
        }
        // The finished player is sought back, then played.
        EXPECT_EQ(music.calls, (std::vector<std::string>{"seek 0.000000", "resume"}));
        EXPECT_TRUE(music.playing);
        EXPECT_FALSE(transport.holdingEnd());
        EXPECT_FALSE(transport.paused());
        EXPECT_LT(transport.tick().timeSeconds, 1.0f);
    }
}

TEST(ShowTransport, WithoutMusicMovesGoWhereAskedAndTheShowNeverEnds) {
    ScriptedMusic music;
    music.present = false;
    ShowTransport transport(music, kFrame);
    transport.start(0.0, 0.0f, 0.0f);
    transport.moveBy(200.0);
    const FrameInfo moved = transport.tick();
    EXPECT_GE(moved.timeSeconds, 200.0f);
    EXPECT_LT(moved.timeSeconds, 201.0f);
    EXPECT_FALSE(transport.holdingEnd());
    transport.moveBy(-500.0);
    EXPECT_LT(transport.tick().timeSeconds, 1.0f);
}

// The music's file changed: the new player is brought to the show's time, paused when the show is.
TEST(ShowTransport, ReloadedMusicIsBroughtToTheShowsTime) {
    ScriptedMusic music;
    ShowTransport transport(music, kFrame);
    transport.start(7.0, 10.0f, 13.75f);
    music.position = 7.0;
    transport.togglePause();
    music.calls.clear();
    music.playing = true;  // a new player plays from its start
    music.position = 0.0;
    transport.musicReloaded(20.0f, 23.75f);
    EXPECT_EQ(music.calls, (std::vector<std::string>{"pause", "seek 7.000000"}));
    EXPECT_FALSE(music.playing);
    EXPECT_EQ(transport.tick().timeSeconds, 7.0f);
    // The new length counts: 19 s is inside the song now, so the music's answer is taken.
    music.length = 20.0;
    transport.moveBy(12.04);
    EXPECT_EQ(transport.tick().timeSeconds, 19.0f);
}

} // namespace
} // namespace brisvale
