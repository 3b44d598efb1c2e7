#pragma once

// The render view's platform-free half: the frame pump (coalescing display ticks into at most one
// queued frame), one frame's steps, the drawable-size rule, the key table, the cursor balance,
// stage B of the launch (show clock, music, display timer) and the teardown order.
//
// The platform half (app/platform/MetalView) derives from it and answers the hooks below with
// SDL, the renderer and the audio library; tests answer them with a recording fake.
//
// [SECTION] Pump
// [SECTION] Frame
// [SECTION] Size
// [SECTION] Keys
// [SECTION] Cursor
// [SECTION] Show start
// [SECTION] Time control
// [SECTION] Teardown
// [SECTION] Hooks

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>

#include "app/App.h"
#include "app/DrawableSize.h"
#include "app/KeyBindings.h"
#include "render/FrameInfo.h"

namespace brisvale {

class ShowTransport;

// The end-of-show rule: an end time above 0 is reached by the first frame whose show time is at
// or past it. That frame is drawn before the application is asked to quit.
bool showHasEnded(float timeSeconds, float renderEndSeconds);

// What the frame pump has done so far, for the frame-pump benchmark. Display ticks are counted
// on the timer thread, the rest on the main thread.
struct FramePumpCounters {
    std::atomic<std::uint64_t> ticks{0};    // display ticks that reached scheduleDrawFrame
    std::atomic<std::uint64_t> queued{0};   // ticks that became a frame task
    std::uint64_t drawn = 0;                // frames handed to the renderer
    std::chrono::nanoseconds frameCpu{0};   // main-thread processor time inside those frames
    std::chrono::steady_clock::time_point firstDrawnAt{};  // when the first and the latest of them
    std::chrono::steady_clock::time_point lastDrawnAt{};   // were handed over
};

class RenderViewLogic {
public:
    RenderViewLogic(const RenderViewLogic&) = delete;
    RenderViewLogic& operator=(const RenderViewLogic&) = delete;

    // [SECTION] Pump
    // Display-timer thread. Queues one frame task unless one is already waiting.
    void scheduleDrawFrame();

    // [SECTION] Frame
    // Main thread: the queued frame task.
    void drawFrame();

    // [SECTION] Size
    // Main thread: at the end of stage A, on every frame-size change, at every frame.
    void updateDrawableSize();

    // [SECTION] Keys
    // Main thread: the view's key table (the menu's key equivalents come first, elsewhere).
    void keyDown(const KeyPress& key);

    // [SECTION] Cursor
    // Main thread. The flag keeps the platform's counted hide/show calls balanced.
    void hideCursorIfNeeded();
    void showCursorIfNeeded();

    // [SECTION] Show start
    // Stage B, main thread, on each full-screen entry; acts on the first call only.
    void startRendering();
    // Before stage B: the show time the clock starts at (0 unless the player was told otherwise);
    // the music is sought to it once its player has started.
    void setShowStartSeconds(double seconds) { showStartSeconds_ = seconds; }

    // [SECTION] Time control
    // Author mode only, set before stage B: frames take their time from
    // `transport` (played, paused and moved by the author) instead of the show clock, and the
    // show's end holds its last frame instead of quitting. Not owned; outlives the frames.
    void setTimeControl(ShowTransport* transport) { timeControl_ = transport; }
    // Author mode, after stage B: the song and its player made again from musicBytes() (the
    // music's file changed), playing from its beginning. False when the music did not load.
    bool reloadMusic();

    bool isRenderingStarted() const { return renderingStarted_; }
    // True once a frame's draw raised: the show was ended and the process should fail.
    bool drawFailed() const { return drawFailed_; }
    bool audioLoaded() const { return audioLoaded_; }
    float showDurationSeconds() const { return showDurationSeconds_; }
    float renderEndSeconds() const { return renderEndSeconds_; }
    const FramePumpCounters& counters() const { return counters_; }

protected:
    RenderViewLogic() = default;
    // The hooks are virtual, so the teardown must run from the most-derived destructor.
    ~RenderViewLogic() = default;

    // [SECTION] Teardown
    // Cursor, display timer, player, song: in this order, each only when present.
    // The derived view then releases its members (layer, device, song record, manifest,
    // archive, renderer, clock) by declaration order.
    void tearDown();

    // [SECTION] Hooks
    // Platform: window, screen, layer, main queue, application, cursor, log.
    virtual bool windowIsFullScreen() const = 0;
    virtual double windowBackingScale() const = 0;  // 0 when the view has no window
    virtual double mainScreenBackingScale() const = 0;
    virtual DrawableSize boundsInPoints() const = 0;
    virtual void setLayerDrawableSize(DrawableSize pixels) = 0;
    virtual void postToMainThread(std::function<void()> task) = 0;  // any thread
    virtual void terminateApplication() = 0;
    virtual void toggleWindowFullScreen() = 0;
    virtual void passKeyOn(const KeyPress& key) = 0;
    virtual void hideSystemCursor() = 0;
    virtual void showSystemCursor() = 0;
    virtual void systemLog(std::string_view line) = 0;

    // Renderer.
    virtual bool hasRenderer() const = 0;
    virtual void resizeRenderer(SurfaceSize size) = 0;
    virtual void drawWithRenderer(const FrameInfo& frame) = 0;

    // Music: the bytes in the archive (may raise), and the audio library on the view's song and
    // player. loadSong takes the block in every outcome, as the library does.
    virtual std::span<const std::byte> musicBytes() const = 0;
    virtual int loadSong(void* block, std::int64_t size) = 0;
    virtual double songDuration() = 0;
    virtual bool createPlayer() = 0;  // false when the library gave no player
    virtual int startPlayer() = 0;
    virtual int seekPlayer(double seconds) = 0;  // a started player only
    virtual bool hasPlayer() const = 0;
    virtual void destroyPlayer() = 0;  // and clear the handle
    virtual void destroySong() = 0;

    // Display timer: created and started at the end of stage B; stopped then released.
    virtual void startDisplayTimer() = 0;
    virtual bool hasDisplayTimer() const = 0;
    virtual void stopAndReleaseDisplayTimer() = 0;

    // The show clock: created by stage B, asked once per frame.
    std::unique_ptr<App> app_;

private:
    void startMusic(double startSeconds);

    // The view's lock. Guards framePending_ and nothing else; the display-timer thread takes it
    // for the test-and-set, the main thread for the clear. Never held while posting or drawing.
    std::recursive_mutex lock_;
    bool framePending_ = false;

    bool renderingStarted_ = false;
    bool audioLoaded_ = false;
    bool cursorHidden_ = false;
    bool drawFailed_ = false;
    double showStartSeconds_ = 0.0;
    ShowTransport* timeControl_ = nullptr;
    float showDurationSeconds_ = 0.0f;
    float renderEndSeconds_ = 0.0f;

    FramePumpCounters counters_;
};

} // namespace brisvale
