// The render view's logic driven through a recording fake of its own platform hooks: the frame
// pump, one frame's steps, keys, cursor, the show start in every music outcome, and teardown.
//
// [SECTION] Frame pump
// [SECTION] One frame
// [SECTION] Keys
// [SECTION] Cursor
// [SECTION] Show start and teardown, in every music outcome
// [SECTION] Time control (author mode)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/RenderViewLogic.h"
#include "app/ShowTransport.h"

namespace brisvale {
namespace {

using Calls = std::vector<std::string>;

// How the fake audio library behaves for one test.
struct MusicScript {
    bool missingInArchive = false;
    std::vector<std::byte> bytes = std::vector<std::byte>(64, std::byte{0x5a});
    bool loadSucceeds = true;
    double duration = 1.0;
    bool playerCreated = true;
    int startResult = 0;
    int seekResult = 0;
};

class RecordingView final : public RenderViewLogic {
public:
    explicit RecordingView(MusicScript music = {}, bool withRenderer = true)
        : music_(std::move(music)), renderer_(withRenderer) {}
    ~RecordingView() {
        tearDown();
        // A song the teardown forgot would leak its block here, which the sanitizer build reports.
    }

    // What the test inspects.
    Calls calls;
    std::vector<std::string> log;
    std::vector<SurfaceSize> resizes;
    std::vector<FrameInfo> frames;
    DrawableSize layerSize;
    int freedBlocks = 0;
    void* handedBlock = nullptr;

    // Knobs.
    bool fullScreen = false;
    double windowScale = 1.0;
    double screenScale = 1.0;
    DrawableSize bounds{1280.0, 720.0};
    std::function<void()> duringDraw;
    bool drawRaises = false;

    // The main queue, as the platform's would hold it.
    std::mutex queueLock;  // guards queue: the test's tick thread posts, the test thread drains
    std::deque<std::function<void()>> queue;
    std::size_t queued() {
        std::lock_guard<std::mutex> guard(queueLock);
        return queue.size();
    }
    bool runOneTask() {
        std::function<void()> task;
        {
            std::lock_guard<std::mutex> guard(queueLock);
            if (queue.empty()) return false;
            task = std::move(queue.front());
            queue.pop_front();
        }
        task();
        return true;
    }

    using RenderViewLogic::setShowStartSeconds;
    using RenderViewLogic::tearDown;

protected:
    bool windowIsFullScreen() const override { return fullScreen; }
    double windowBackingScale() const override { return windowScale; }
    double mainScreenBackingScale() const override { return screenScale; }
    DrawableSize boundsInPoints() const override { return bounds; }
    void setLayerDrawableSize(DrawableSize pixels) override { layerSize = pixels; }
    void postToMainThread(std::function<void()> task) override {
        std::lock_guard<std::mutex> guard(queueLock);
        queue.push_back(std::move(task));
    }
    void terminateApplication() override { calls.push_back("terminate"); }
    void toggleWindowFullScreen() override { calls.push_back("toggleFullScreen"); }
    void passKeyOn(const KeyPress&) override { calls.push_back("passKeyOn"); }
    void hideSystemCursor() override { calls.push_back("hideCursor"); }
    void showSystemCursor() override { calls.push_back("showCursor"); }
    void systemLog(std::string_view line) override { log.emplace_back(line); }

    bool hasRenderer() const override { return renderer_; }
    void resizeRenderer(SurfaceSize size) override { resizes.push_back(size); }
    void drawWithRenderer(const FrameInfo& frame) override {
        calls.push_back("draw");
        frames.push_back(frame);
        if (duringDraw) duringDraw();
        if (drawRaises) throw std::runtime_error("Failed to create depth texture");
    }

    std::span<const std::byte> musicBytes() const override {
        if (music_.missingInArchive) throw std::runtime_error("Missing file in demo archive: song.flac");
        return music_.bytes;
    }
    int loadSong(void* block, std::int64_t size) override {
        calls.push_back("loadSong");
        handedBlock = block;
        // The block is the music's bytes, copied.
        if (size > 0 && std::memcmp(block, music_.bytes.data(), static_cast<std::size_t>(size)) != 0) {
            ADD_FAILURE() << "the block does not hold the music's bytes";
        }
        if (!music_.loadSucceeds || size == 0) {
            release(block);  // the library frees the block on failure
            return -1;
        }
        songBlock_ = block;
        return 0;
    }
    double songDuration() override { return music_.duration; }
    bool createPlayer() override {
        calls.push_back("createPlayer");
        player_ = music_.playerCreated;
        return player_;
    }
    int startPlayer() override {
        calls.push_back("startPlayer");
        return music_.startResult;
    }
    int seekPlayer(double seconds) override {
        calls.push_back("seekPlayer " + std::to_string(seconds));
        return music_.seekResult;
    }
    bool hasPlayer() const override { return player_; }
    void destroyPlayer() override {
        calls.push_back("destroyPlayer");
        player_ = false;
    }
    void destroySong() override {
        calls.push_back("destroySong");
        if (songBlock_ == nullptr) ADD_FAILURE() << "song destroyed twice or never loaded";
        release(songBlock_);
        songBlock_ = nullptr;
    }
    void startDisplayTimer() override {
        calls.push_back("startDisplayTimer");
        timer_ = true;
    }
    bool hasDisplayTimer() const override { return timer_; }
    void stopAndReleaseDisplayTimer() override {
        calls.push_back("stopDisplayTimer");
        timer_ = false;
    }

private:
    void release(void* block) {
        ++freedBlocks;
        std::free(block);
    }

    MusicScript music_;
    bool renderer_;
    bool player_ = false;
    bool timer_ = false;
    void* songBlock_ = nullptr;
};

Calls callsAfter(const Calls& all, std::size_t from) { return Calls(all.begin() + static_cast<long>(from), all.end()); }

// ---------------------------------------------------------------------------------------------
// [SECTION] Frame pump

TEST(FramePump, TicksWhileAFrameWaitsAddNothing) {
    RecordingView view;
    view.startRendering();
    view.scheduleDrawFrame();
    EXPECT_EQ(view.queued(), 1u);
    for (int i = 0; i < 10; ++i) view.scheduleDrawFrame();
    EXPECT_EQ(view.queued(), 1u);
    ASSERT_TRUE(view.runOneTask());
    EXPECT_EQ(view.frames.size(), 1u);
    EXPECT_EQ(view.queued(), 0u);
    // The benchmark's counters: eleven ticks, one frame task, one frame drawn.
    EXPECT_EQ(view.counters().ticks.load(), 11u);
    EXPECT_EQ(view.counters().queued.load(), 1u);
    EXPECT_EQ(view.counters().drawn, 1u);
}

TEST(FramePump, TheFirstTickAfterTheFrameStartsQueuesExactlyOneMore) {
    RecordingView view;
    view.startRendering();
    view.scheduleDrawFrame();
    // Ticks that arrive while the frame draws: the flag was cleared first, so one queues.
    view.duringDraw = [&] {
        view.scheduleDrawFrame();
        view.scheduleDrawFrame();
        view.scheduleDrawFrame();
    };
    ASSERT_TRUE(view.runOneTask());
    EXPECT_EQ(view.queued(), 1u);
    view.duringDraw = nullptr;
    ASSERT_TRUE(view.runOneTask());
    EXPECT_EQ(view.queued(), 0u);
    EXPECT_EQ(view.frames.size(), 2u);
}

TEST(FramePump, ATimerThreadNeverQueuesMoreThanOneFrame) {
    RecordingView view;
    view.startRendering();
    std::atomic<bool> stop{false};
    std::thread timer([&] {
        while (!stop.load()) {
            view.scheduleDrawFrame();
            std::this_thread::yield();
        }
    });
    std::size_t most = 0;
    int drawn = 0;
    while (drawn < 200) {
        most = std::max(most, view.queued());
        if (view.runOneTask()) ++drawn;
    }
    stop = true;
    timer.join();
    most = std::max(most, view.queued());
    EXPECT_EQ(most, 1u);
    EXPECT_EQ(view.frames.size(), 200u);
}

TEST(FramePump, NothingIsDrawnBeforeTheShowStartsNorWithoutARenderer) {
    RecordingView view;
    view.scheduleDrawFrame();
    ASSERT_TRUE(view.runOneTask());
    EXPECT_TRUE(view.frames.empty());
    EXPECT_TRUE(view.resizes.empty());
    view.scheduleDrawFrame();
    EXPECT_EQ(view.queued(), 1u) << "the frame cleared the flag";

    RecordingView withoutRenderer({}, /*withRenderer=*/false);
    withoutRenderer.startRendering();
    withoutRenderer.scheduleDrawFrame();
    ASSERT_TRUE(withoutRenderer.runOneTask());
    EXPECT_TRUE(withoutRenderer.frames.empty());
}

// ---------------------------------------------------------------------------------------------
// [SECTION] One frame

// The view hands the size rule its window (DrawableSizeTest has the rule itself): the layer gets
// the pixels, the renderer them truncated.
TEST(Frame, ResizesThenDrawsWithTheShowTiming) {
    RecordingView view;  // a 1 s song
    view.startRendering();
    view.fullScreen = true;
    view.drawFrame();
    ASSERT_EQ(view.resizes.size(), 1u);
    EXPECT_EQ(view.resizes[0].width, 1920u);
    EXPECT_EQ(view.resizes[0].height, 1080u);
    ASSERT_EQ(view.frames.size(), 1u);
    EXPECT_EQ(view.frames[0].showDurationSeconds, 1.0f);
    EXPECT_EQ(view.frames[0].renderEndSeconds, 4.75f);
    EXPECT_EQ(view.frames[0].deltaSeconds, view.frames[0].timeSeconds);

    view.fullScreen = false;
    view.windowScale = 2.0;
    view.bounds = {100.7, 50.2};
    view.drawFrame();
    EXPECT_DOUBLE_EQ(view.layerSize.width, 201.4);
    ASSERT_EQ(view.resizes.size(), 2u);
    EXPECT_EQ(view.resizes[1].width, 201u);
    EXPECT_EQ(view.resizes[1].height, 100u);
    EXPECT_GE(view.frames[1].timeSeconds, view.frames[0].timeSeconds);
}

TEST(Frame, AnUnknownSongLengthEndsTheShowAt3Point75Seconds) {
    EXPECT_FALSE(showHasEnded(3.7499998f, renderEndSecondsForAudio(0.0f)));
    EXPECT_TRUE(showHasEnded(3.75f, renderEndSecondsForAudio(0.0f)));
    EXPECT_FALSE(showHasEnded(1000.0f, 0.0f));
    EXPECT_FALSE(showHasEnded(1000.0f, -1.0f));
}

TEST(Frame, TheFrameThatReachesTheEndIsDrawnThenTheApplicationQuits) {
    MusicScript music;
    music.duration = -3.749;  // an end time a millisecond after the show starts
    RecordingView view(music);
    view.startRendering();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const std::size_t before = view.calls.size();
    view.drawFrame();
    EXPECT_EQ(callsAfter(view.calls, before), (Calls{"draw", "terminate"}));
}

TEST(Frame, AnErrorFromDrawIsReportedOnceAndEndsTheShow) {
    RecordingView view;
    view.startRendering();
    view.drawRaises = true;
    view.drawFrame();
    EXPECT_TRUE(view.drawFailed());
    ASSERT_EQ(view.log.size(), 1u);
    EXPECT_EQ(view.log[0], "Frame failed: Failed to create depth texture");
    EXPECT_EQ(std::count(view.calls.begin(), view.calls.end(), "terminate"), 1);
    // Frames still queued after the failure draw nothing and report nothing.
    view.scheduleDrawFrame();
    ASSERT_TRUE(view.runOneTask());
    EXPECT_EQ(view.frames.size(), 1u);
    EXPECT_EQ(view.log.size(), 1u);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Keys

TEST(ViewKeys, EachActionReachesItsPlatformOperation) {
    RecordingView view;
    view.keyDown({KeyCode::Escape, true, "\x1b"});
    view.keyDown({KeyCode::Return, false, "\r"});
    // Repeats are not filtered.
    view.keyDown({KeyCode::Other, false, "f"});
    view.keyDown({KeyCode::Other, false, "f"});
    EXPECT_EQ(view.calls, (Calls{"terminate", "passKeyOn", "toggleFullScreen", "toggleFullScreen"}));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Cursor

TEST(Cursor, HideTwiceShowOnceLeavesItVisible) {
    RecordingView view;
    view.hideCursorIfNeeded();
    view.hideCursorIfNeeded();
    view.showCursorIfNeeded();
    view.showCursorIfNeeded();
    EXPECT_EQ(view.calls, (Calls{"hideCursor", "showCursor"}));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Show start and teardown, in every music outcome

struct Outcome {
    const char* name;
    MusicScript music;
    Calls start;      // calls of stage B
    Calls teardown;   // calls of the teardown
    std::vector<std::string> log;
    bool loaded;
    float renderEnd;
    int blocksFreedAtLoad;
};

class ShowStart : public ::testing::TestWithParam<Outcome> {};

TEST_P(ShowStart, StartsTearsDownInOrderAndReleasesTheBlockOnce) {
    const Outcome& o = GetParam();
    SCOPED_TRACE(o.name);
    int freed = 0;
    {
        RecordingView view(o.music);
        view.startRendering();
        EXPECT_EQ(view.calls, o.start);
        EXPECT_EQ(view.log, o.log);
        EXPECT_EQ(view.audioLoaded(), o.loaded);
        EXPECT_EQ(view.renderEndSeconds(), o.renderEnd);
        EXPECT_EQ(view.freedBlocks, o.blocksFreedAtLoad);

        // A second full-screen entry starts nothing.
        const std::size_t before = view.calls.size();
        view.startRendering();
        EXPECT_EQ(view.calls.size(), before);

        view.tearDown();
        EXPECT_EQ(callsAfter(view.calls, before), o.teardown);
        freed = view.freedBlocks;
        // The destructor tears down once more below; it must find nothing left to do.
        view.calls.clear();
    }
    // Every block handed to the library was released exactly once, by the library or the song.
    EXPECT_EQ(freed, o.music.missingInArchive ? 0 : 1);
}

const Calls kTornDownAll{"showCursor", "stopDisplayTimer", "destroyPlayer", "destroySong"};

INSTANTIATE_TEST_SUITE_P(
    MusicOutcomes, ShowStart,
    ::testing::Values(
        Outcome{"plays",
                MusicScript{},
                {"hideCursor", "loadSong", "createPlayer", "startPlayer", "startDisplayTimer"},
                kTornDownAll,
                {},
                true,
                4.75f,
                0},
        Outcome{"rejected by the decoder",
                MusicScript{.loadSucceeds = false},
                {"hideCursor", "loadSong", "startDisplayTimer"},
                {"showCursor", "stopDisplayTimer"},
                {"Failed to load audio asset"},
                false,
                0.0f,
                1},
        Outcome{"no player",
                MusicScript{.playerCreated = false},
                {"hideCursor", "loadSong", "createPlayer", "startDisplayTimer"},
                {"showCursor", "stopDisplayTimer", "destroySong"},
                {"Failed to start audio playback"},
                true,
                4.75f,
                0},
        Outcome{"player does not start",
                MusicScript{.startResult = -1},
                {"hideCursor", "loadSong", "createPlayer", "startPlayer", "startDisplayTimer"},
                kTornDownAll,
                {"Failed to start audio playback"},
                true,
                4.75f,
                0},
        Outcome{"not in the archive",
                MusicScript{.missingInArchive = true},
                {"hideCursor", "startDisplayTimer"},
                {"showCursor", "stopDisplayTimer"},
                {"Failed to load audio asset: Missing file in demo archive: song.flac"},
                false,
                0.0f,
                0}));

// The player told to begin later: the clock starts at that time, the music is sought there once
// its player has started, and a seek that fails leaves the show running with its end time.
TEST(ShowStart, ALaterStartSetsTheClockAndSeeksTheStartedMusic) {
    for (const int seekResult : {0, -1}) {
        MusicScript music;
        music.duration = 30.0;
        music.seekResult = seekResult;
        RecordingView view(music);
        view.setShowStartSeconds(20.0);
        view.startRendering();
        EXPECT_EQ(view.calls, (Calls{"hideCursor", "loadSong", "createPlayer", "startPlayer", "seekPlayer 20.000000",
                                     "startDisplayTimer"}));
        EXPECT_EQ(view.log, seekResult == 0 ? std::vector<std::string>{}
                                            : std::vector<std::string>{"Failed to seek audio playback"});
        EXPECT_EQ(view.renderEndSeconds(), 33.75f);
        view.drawFrame();
        ASSERT_EQ(view.frames.size(), 1u);
        EXPECT_GE(view.frames[0].timeSeconds, 20.0f);
        EXPECT_LT(view.frames[0].timeSeconds, 21.0f);
        EXPECT_LT(view.frames[0].deltaSeconds, 1.0f);
        EXPECT_EQ(std::count(view.calls.begin(), view.calls.end(), "terminate"), 0) << "time is left";
    }
}

TEST(ShowStart, AnEmptyMusicFileIsNotLoadedAndLeaksNothing) {
    MusicScript music;
    music.bytes.clear();
    RecordingView view(music);
    view.startRendering();
    EXPECT_FALSE(view.audioLoaded());
    EXPECT_EQ(view.log, (std::vector<std::string>{"Failed to load audio asset"}));
    EXPECT_EQ(view.showDurationSeconds(), 0.0f);
    EXPECT_EQ(view.renderEndSeconds(), 0.0f);
    // malloc(0) may give a block or none; a block handed over was freed by the library.
    EXPECT_EQ(view.freedBlocks, view.handedBlock != nullptr ? 1 : 0);
    EXPECT_TRUE(view.isRenderingStarted());
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Time control (author mode)

// A player that answers nothing: the transport keeps its own time.
class UnansweringMusic final : public ShowMusic {
public:
    bool pauseMusic() override { return false; }
    bool resumeMusic() override { return false; }
    bool seekMusic(double) override { return false; }
    double musicSeconds() override { return -1.0; }
    bool musicDone() override { return true; }
};

TEST(TimeControl, TheShowHoldsItsEndInsteadOfQuittingAndItsMusicLoadsAgain) {
    UnansweringMusic music;
    ShowTransport transport(music, 1.0 / 60.0);
    RecordingView view;  // a 1 s song: the show ends at 4.75 s
    view.setTimeControl(&transport);
    view.setShowStartSeconds(4.8);
    view.startRendering();
    EXPECT_TRUE(transport.started());
    view.drawFrame();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    view.drawFrame();
    EXPECT_EQ(std::count(view.calls.begin(), view.calls.end(), "terminate"), 0);
    ASSERT_EQ(view.frames.size(), 2u);
    EXPECT_GE(view.frames[0].timeSeconds, 4.8f);
    EXPECT_EQ(view.frames[1].timeSeconds, view.frames[0].timeSeconds);
    EXPECT_EQ(view.frames[1].deltaSeconds, 0.0f);
    EXPECT_EQ(view.frames[1].renderEndSeconds, 4.75f);
    EXPECT_TRUE(transport.holdingEnd());

    // The music's file changed: the old player and song go first, then the new ones come.
    const std::size_t before = view.calls.size();
    EXPECT_TRUE(view.reloadMusic());
    EXPECT_EQ(callsAfter(view.calls, before),
              (Calls{"destroyPlayer", "destroySong", "loadSong", "createPlayer", "startPlayer"}));
    EXPECT_EQ(view.renderEndSeconds(), 4.75f);
}

TEST(Teardown, AViewThatNeverStartedTouchesNothing) {
    auto view = std::make_unique<RecordingView>();
    view->tearDown();
    EXPECT_TRUE(view->calls.empty());
}

} // namespace
} // namespace brisvale
