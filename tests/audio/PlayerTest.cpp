// The player on SDL's disk driver: every transition of the state table, the position, seek
// clamping, volume, the end of the song, and what reaches the output (read back from the file
// the disk driver writes).
//
// [SECTION] Transport
// [SECTION] Output

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "audio/audio.h"
#include "audio/internal/player_record.h"
#include "audio/platform/OutputQueue.h"
#include "support/TestMedia.h"

namespace pelora::gamedev::core {
namespace {

using brisvale::test::TempDir;

template <typename Predicate>
bool waitUntil(Predicate done, int timeoutMs = 20000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct Flags {
    int running, paused, done;
    bool operator==(const Flags&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Flags& f) {
    return os << "{running " << f.running << ", paused " << f.paused << ", done " << f.done << "}";
}
// The queue has played everything and stopped by itself.
bool playedOut(audio_player* p) { return !platform::queueIsRunning(p->queue.get()); }

Flags flags(const audio_player* p) { return {p->running.load(), p->paused.load() ? 1 : 0, p->done.load()}; }

constexpr Flags kCreated{0, 0, 0};
constexpr Flags kPlaying{1, 0, 0};
constexpr Flags kPaused{1, 1, 0};
constexpr Flags kRanOut{0, 0, 1};
constexpr Flags kRanOutPriming{1, 0, 1};

class PlayerTest : public ::testing::Test {
protected:
    // A WAV song of `frames` frames, loaded from memory (s16) or from its path (float).
    void load(int64_t frames, int rate = 32000, int channels = 2, bool fromMemory = true) {
        signal_ = brisvale::test::makeSignal(frames, channels, rate);
        path_ = dir_.file("song.wav");
        brisvale::test::encodeFile(path_, {"wav", "pcm_s16le", rate, channels, {}, {}}, signal_);
        if (fromMemory) {
            const std::vector<uint8_t> bytes = brisvale::test::readFile(path_);
            ASSERT_EQ(audio_song_load_from_memory(&song_, brisvale::test::mallocCopy(bytes),
                                                  static_cast<int64_t>(bytes.size())),
                      0);
        } else {
            ASSERT_EQ(audio_song_load(&song_, path_.c_str()), 0);
        }
    }
    void TearDown() override {
        audio_player_destroy(player_);
        audio_song_destroy(&song_);
        audio_set_error_logging(false);
        setenv("SDL_DISKAUDIOFILE", "/dev/null", 1);
        setenv("SDL_DISKAUDIODELAY", "1", 1);
    }
    void create() {
        player_ = audio_player_create(&song_);
        ASSERT_NE(player_, nullptr);
    }
    // The disk driver writes what is played to this file; complete once the player is destroyed.
    std::string recordOutput() {
        const std::string out = dir_.file("out.raw");
        setenv("SDL_DISKAUDIOFILE", out.c_str(), 1);
        return out;
    }
    void closeDevice() {
        audio_player_destroy(player_);
        player_ = nullptr;
    }

    TempDir dir_;
    std::string path_;
    std::vector<int16_t> signal_;
    audio_song song_{};
    audio_player* player_ = nullptr;
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Transport
// ---------------------------------------------------------------------------------------------

TEST_F(PlayerTest, CreateStartTwiceAndTheNullCases) {
    EXPECT_EQ(audio_player_create(nullptr), nullptr);
    EXPECT_TRUE(audio_player_is_done(nullptr));
    EXPECT_EQ(audio_player_duration(nullptr), -1.0);
    EXPECT_EQ(audio_player_get_time(nullptr), -1.0);
    EXPECT_EQ(audio_player_start(nullptr), -1);
    EXPECT_EQ(audio_player_stop(nullptr), -1);
    EXPECT_EQ(audio_player_pause(nullptr), -1);
    EXPECT_EQ(audio_player_resume(nullptr), -1);
    EXPECT_EQ(audio_player_seek(nullptr, 1.0), -1);
    EXPECT_EQ(audio_player_set_volume(nullptr, 0.5f), -1);
    audio_player_destroy(nullptr);

    load(32000 * 4);
    create();
    EXPECT_EQ(flags(player_), kCreated);
    EXPECT_EQ(audio_player_duration(player_), 4.0);
    EXPECT_FALSE(audio_player_is_done(player_));
    EXPECT_EQ(audio_player_get_time(player_), -1.0) << "not running yet";
    EXPECT_EQ(audio_player_pause(player_), -1);
    EXPECT_EQ(audio_player_resume(player_), -1) << "resume from Created is refused";
    EXPECT_EQ(audio_player_stop(player_), -1);
    EXPECT_EQ(flags(player_), kCreated);

    ASSERT_EQ(audio_player_start(player_), 0);
    EXPECT_EQ(flags(player_), kPlaying);
    EXPECT_EQ(player_->buffers[0]->capacityBytes, 2048u * 4u) << "16-bit stereo";
    EXPECT_GE(audio_player_get_time(player_), 0.0);
    EXPECT_EQ(audio_player_start(player_), -1);
    EXPECT_EQ(flags(player_), kPlaying);
}

TEST_F(PlayerTest, PauseResumeAndTheClock) {
    load(32000 * 8);
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_TRUE(waitUntil([&] { return audio_player_get_time(player_) > 0.1; }));
    const double before = audio_player_get_time(player_);

    ASSERT_EQ(audio_player_pause(player_), 0);
    EXPECT_EQ(flags(player_), kPaused);
    const double held = audio_player_get_time(player_);
    EXPECT_GE(held, before);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(audio_player_get_time(player_), held) << "the clock holds while paused";
    EXPECT_EQ(audio_player_pause(player_), -1) << "pausing twice";
    EXPECT_EQ(audio_player_start(player_), -1);

    ASSERT_EQ(audio_player_resume(player_), 0);
    EXPECT_EQ(flags(player_), kPlaying);
    const double resumedAt = static_cast<double>(player_->resume_frame) / 32000.0;
    EXPECT_GE(audio_player_get_time(player_), resumedAt);
    ASSERT_TRUE(waitUntil([&] { return audio_player_get_time(player_) > resumedAt + 0.05; }));
    EXPECT_LT(audio_player_get_time(player_), 8.0);

    // Resume while playing restarts from resume_frame.
    ASSERT_TRUE(waitUntil([&] { return audio_player_get_time(player_) > resumedAt + 0.5; }));
    ASSERT_EQ(audio_player_resume(player_), 0);
    EXPECT_EQ(flags(player_), kPlaying);
    const double t = audio_player_get_time(player_);
    EXPECT_GE(t, resumedAt);
    EXPECT_LT(t, resumedAt + 0.5);
}

TEST_F(PlayerTest, StopThenSeekThenResumePlaysFromTheNewPosition) {
    load(32000 * 6);
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_EQ(audio_player_stop(player_), 0);
    EXPECT_EQ(flags(player_), (Flags{0, 0, 1}));
    EXPECT_TRUE(audio_player_is_done(player_));
    EXPECT_EQ(audio_player_get_time(player_), -1.0);
    EXPECT_EQ(audio_player_stop(player_), -1);
    EXPECT_EQ(audio_player_start(player_), -1) << "no start after stop";
    EXPECT_EQ(audio_player_resume(player_), -1) << "resume from Stopped is refused";
    EXPECT_EQ(audio_player_pause(player_), -1);

    ASSERT_EQ(audio_player_seek(player_, 4.0), 0);
    EXPECT_EQ(flags(player_), kPaused) << "seek revives a stopped player, paused";
    EXPECT_EQ(audio_player_get_time(player_), 4.0);
    EXPECT_EQ(player_->resume_frame, 4 * 32000);
    ASSERT_EQ(audio_player_resume(player_), 0);
    EXPECT_EQ(flags(player_), kPlaying);
    EXPECT_GE(audio_player_get_time(player_), 4.0);
    ASSERT_TRUE(waitUntil([&] { return audio_player_get_time(player_) > 4.05; }));
}

TEST_F(PlayerTest, StopWhilePausedKeepsPausedAndAllowsResume) {
    load(32000 * 4);
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_EQ(audio_player_pause(player_), 0);
    ASSERT_EQ(audio_player_stop(player_), 0);
    EXPECT_EQ(flags(player_), (Flags{0, 1, 1}));
    ASSERT_EQ(audio_player_resume(player_), 0) << "paused is set, so resume is accepted";
    EXPECT_EQ(flags(player_), kPlaying);
}

TEST_F(PlayerTest, SeekClampsToTheSongAndKeepsAPausedPlayerPaused) {
    load(32000 * 3);
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_EQ(audio_player_seek(player_, 2.0), 0);
    ASSERT_EQ(audio_player_seek(player_, -5.0), 0);
    EXPECT_EQ(flags(player_), kPlaying) << "seek while playing keeps playing";
    EXPECT_EQ(player_->resume_frame, 0);
    // The tap forgot what came before: priming refilled it from frame 0 (six buffers).
    std::vector<float> recent(8192);
    ASSERT_EQ(audio_player_get_recent_samples(player_, recent.data(), 8192), 8192u);
    const int64_t newest = 6 * 2048 - 1;
    EXPECT_EQ(recent[8191], (signal_[newest * 2] / 32768.0f + signal_[newest * 2 + 1] / 32768.0f) / 2.0f);

    ASSERT_EQ(audio_player_pause(player_), 0);
    ASSERT_EQ(audio_player_seek(player_, 99.0), 0);
    EXPECT_EQ(flags(player_), kPaused);
    EXPECT_EQ(player_->resume_frame, 3 * 32000 - 1) << "past the end goes to the last frame";
    EXPECT_EQ(audio_player_get_time(player_), (3.0 * 32000 - 1) / 32000);
    EXPECT_EQ(player_->recent_count, 0u);

    ASSERT_EQ(audio_player_seek(player_, 1.25), 0);
    EXPECT_EQ(flags(player_), kPaused);
    EXPECT_EQ(audio_player_get_time(player_), 1.25);
    EXPECT_EQ(player_->resume_frame, 40000);
}

TEST_F(PlayerTest, SeekBeforeTheFirstStartLeavesAPlayerThatNeverPlays) {
    load(32000 * 2);
    create();
    ASSERT_EQ(audio_player_seek(player_, 0.5), 0);
    EXPECT_EQ(flags(player_), kPaused);
    EXPECT_EQ(player_->buffers, nullptr);
    EXPECT_EQ(audio_player_start(player_), -1) << "it counts as running";
    EXPECT_EQ(audio_player_resume(player_), -1) << "no buffers to prime";
}

TEST_F(PlayerTest, RunsOutAtTheEndWithOneMessageAndSeekRevivesIt) {
    load(32000);
    create();
    audio_set_error_logging(true);
    testing::internal::CaptureStderr();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_TRUE(waitUntil([&] { return audio_player_is_done(player_); }));
    const std::string out = testing::internal::GetCapturedStderr();
    audio_set_error_logging(false);
    EXPECT_EQ(out, "\nExtAudioFileRead failed or EOF: 0\n");

    EXPECT_EQ(flags(player_), kRanOut);
    EXPECT_EQ(audio_player_get_time(player_), -1.0);
    EXPECT_EQ(audio_player_start(player_), -1);
    EXPECT_EQ(audio_player_stop(player_), -1);
    EXPECT_EQ(audio_player_pause(player_), -1);
    EXPECT_EQ(audio_player_resume(player_), -1);

    ASSERT_EQ(audio_player_seek(player_, 0.25), 0);
    EXPECT_EQ(flags(player_), kPaused);
    ASSERT_EQ(audio_player_resume(player_), 0);
    EXPECT_EQ(flags(player_), kPlaying);
    ASSERT_TRUE(waitUntil([&] { return audio_player_is_done(player_); }));
}

TEST_F(PlayerTest, UnknownLengthSeeksAreNotClampedAbove) {
    load(32000);
    song_.duration_seconds = 0.0;  // as for a song whose length could not be found
    create();
    EXPECT_EQ(audio_player_duration(player_), 0.0);
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_EQ(audio_player_seek(player_, 100.0), 0);
    EXPECT_EQ(player_->resume_frame, 100 * 32000);
    // Nothing lies there: the first refill ends the song.
    ASSERT_EQ(audio_player_resume(player_), 0);
    EXPECT_EQ(flags(player_), kRanOutPriming);
}

TEST_F(PlayerTest, VolumeIsCheckedAndTheDurationFollowsTheSong) {
    load(3200, 32000, 1, false);
    create();
    EXPECT_EQ(audio_player_duration(player_), 0.1);
    EXPECT_EQ(audio_player_set_volume(player_, 1.5f), -1);
    EXPECT_EQ(audio_player_set_volume(player_, -0.1f), -1);
    EXPECT_EQ(audio_player_set_volume(player_, 0.0f), 0);
    EXPECT_EQ(audio_player_set_volume(player_, 1.0f), 0);
    EXPECT_EQ(player_->buffers, nullptr);
    ASSERT_EQ(audio_player_start(player_), 0);
    EXPECT_EQ(player_->buffers[0]->capacityBytes, 2048u * 4u) << "float mono";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Output
// ---------------------------------------------------------------------------------------------
// What reaches the device, from the file the disk driver writes.

template <typename Sample>
std::vector<Sample> readOutput(const std::string& path) {
    const std::vector<uint8_t> bytes = brisvale::test::readFile(path);
    std::vector<Sample> out(bytes.size() / sizeof(Sample));
    if (!out.empty()) {
        std::memcpy(out.data(), bytes.data(), out.size() * sizeof(Sample));
    }
    return out;
}

// The disk driver runs far ahead of real time, so the refill thread can fall behind on a busy
// machine and the device fills the gap with silence. Frames of pure silence are dropped from
// what was written and from what is expected alike; order and values are compared exactly.
template <typename Sample>
std::vector<Sample> withoutSilentFrames(const std::vector<Sample>& samples, size_t channels) {
    std::vector<Sample> kept;
    for (size_t k = 0; k + channels <= samples.size(); k += channels) {
        bool silent = true;
        for (size_t j = 0; j < channels; ++j) {
            silent = silent && samples[k + j] == Sample{0};
        }
        if (!silent) {
            kept.insert(kept.end(), samples.begin() + k, samples.begin() + k + channels);
        }
    }
    return kept;
}

TEST_F(PlayerTest, OutputCarriesTheVolumeButTheTapDoesNot_S16) {
    load(20000, 32000, 2, true);
    const std::string out = recordOutput();
    create();
    ASSERT_EQ(audio_player_set_volume(player_, 0.5f), 0);
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_TRUE(waitUntil([&] { return audio_player_is_done(player_) && playedOut(player_); }));

    // The tap saw the samples before the volume.
    std::vector<float> recent(4);
    ASSERT_EQ(audio_player_get_recent_samples(player_, recent.data(), 2), 2u);
    const size_t n = signal_.size();
    EXPECT_EQ(recent[1], (signal_[n - 2] / 32768.0f + signal_[n - 1] / 32768.0f) / 2.0f);

    closeDevice();
    std::vector<int16_t> expected(signal_.size());
    for (size_t i = 0; i < signal_.size(); ++i) {
        expected[i] = static_cast<int16_t>(std::lrintf(signal_[i] * 0.5f));
    }
    // The whole song at half volume, and only silence before and after it.
    EXPECT_EQ(withoutSilentFrames(readOutput<int16_t>(out), 2), withoutSilentFrames(expected, 2));
}

TEST_F(PlayerTest, OutputOfAFloatSongAtFullAndZeroVolume) {
    load(9000, 32000, 1, false);
    const std::string out = recordOutput();
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    std::vector<float> expected(signal_.size());
    for (size_t i = 0; i < signal_.size(); ++i) {
        expected[i] = signal_[i] / 32768.0f;
    }
    ASSERT_TRUE(waitUntil([&] { return playedOut(player_); }));

    // Shorter than the buffers: it ran out while priming and still counts as running (no second
    // start), so a seek plays it again at once.
    EXPECT_EQ(flags(player_), kRanOutPriming);
    EXPECT_TRUE(audio_player_is_done(player_));
    EXPECT_EQ(audio_player_start(player_), -1);
    EXPECT_EQ(audio_player_get_time(player_), 9000.0 / 32000) << "every frame played";
    ASSERT_EQ(audio_player_set_volume(player_, 0.0f), 0);
    ASSERT_EQ(audio_player_seek(player_, 0.0), 0);
    EXPECT_EQ(flags(player_), kRanOutPriming);
    ASSERT_TRUE(waitUntil([&] { return playedOut(player_); })) << "the second run has played out";
    EXPECT_EQ(audio_player_get_time(player_), 9000.0 / 32000);
    std::vector<float> recent(8);
    ASSERT_EQ(audio_player_get_recent_samples(player_, recent.data(), 8), 8u);
    EXPECT_EQ(recent[7], expected.back()) << "the tap is not silenced";
    closeDevice();
    // The first run at full volume, the second silent.
    EXPECT_EQ(withoutSilentFrames(readOutput<float>(out), 1), withoutSilentFrames(expected, 1));
}

// The clock counts what the device has played, not what it was handed. The disk driver, pacing
// slowly here, asks for its next buffer once it has played the last one.
TEST_F(PlayerTest, TheClockCountsOnlyWhatTheDeviceHasPlayed) {
    load(32000 * 2);
    setenv("SDL_DISKAUDIODELAY", "200", 1);
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    EXPECT_EQ(audio_player_get_time(player_), 0.0);
    // Priming ran the tap up to the end of the sixth buffer; the first refill comes once the
    // first buffer's last frame has been handed to the device, which is still playing it.
    const auto newest = [&] {
        float v = 0;
        audio_player_get_recent_samples(player_, &v, 1);
        return v;
    };
    const float primed = newest();
    ASSERT_TRUE(waitUntil([&] { return newest() != primed; }));
    EXPECT_LT(audio_player_get_time(player_), 2048.0 / 32000);
}

// Pausing lets the device play out what it holds, and resume goes on after it: the output holds
// every frame of the song once, in order.
TEST_F(PlayerTest, PauseAndResumeNeitherSkipNorRepeatAFrame) {
    load(32000 * 4, 32000, 2, true);
    const std::string out = recordOutput();
    setenv("SDL_DISKAUDIODELAY", "8", 1);  // four times real time: a busy machine still pauses in time
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    for (double at = 0.3; at < 3.6; at += 0.33) {
        ASSERT_TRUE(waitUntil([&] { return audio_player_get_time(player_) > at; }));
        ASSERT_EQ(audio_player_pause(player_), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_EQ(audio_player_resume(player_), 0);
    }
    ASSERT_TRUE(waitUntil([&] { return audio_player_is_done(player_) && playedOut(player_); }));
    closeDevice();
    EXPECT_EQ(withoutSilentFrames(readOutput<int16_t>(out), 2), withoutSilentFrames(signal_, 2));
}

TEST_F(PlayerTest, SeekLandsOnTheExactFrameInTheOutput) {
    load(32000 * 2, 32000, 2, true);
    const std::string out = recordOutput();
    create();
    ASSERT_EQ(audio_player_start(player_), 0);
    ASSERT_EQ(audio_player_stop(player_), 0);
    const int64_t target = 23457;
    ASSERT_EQ(audio_player_seek(player_, (target + 0.5) / 32000.0), 0);
    EXPECT_EQ(player_->resume_frame, target);
    ASSERT_EQ(audio_player_resume(player_), 0);
    ASSERT_TRUE(waitUntil([&] { return audio_player_is_done(player_) && playedOut(player_); }));
    closeDevice();

    // Whatever the short first run played comes from the start of the song; then the song from
    // the target frame to its end, and nothing else.
    const std::vector<int16_t> written = withoutSilentFrames(readOutput<int16_t>(out), 2);
    const std::vector<int16_t> tail =
        withoutSilentFrames(std::vector<int16_t>(signal_.begin() + target * 2, signal_.end()), 2);
    ASSERT_GE(written.size(), tail.size());
    const size_t firstRun = written.size() - tail.size();
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), written.begin() + firstRun)) << "the song from the target frame on";
    const std::vector<int16_t> head = withoutSilentFrames(signal_, 2);
    ASSERT_LT(firstRun, static_cast<size_t>(target * 2));
    EXPECT_TRUE(std::equal(written.begin(), written.begin() + firstRun, head.begin())) << "the first run, from frame 0";
}

} // namespace
} // namespace pelora::gamedev::core
