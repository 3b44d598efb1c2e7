#include "app/RenderViewLogic.h"

#include <time.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "app/ShowTransport.h"

namespace brisvale {
namespace {

// The shell's own messages; the platform log carries them.
constexpr std::string_view kFailedToLoadAudio = "Failed to load audio asset";
constexpr std::string_view kFailedToStartAudio = "Failed to start audio playback";
constexpr std::string_view kFailedToSeekAudio = "Failed to seek audio playback";
constexpr std::string_view kFrameFailed = "Frame failed: ";

std::chrono::nanoseconds threadCpuTime() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
}

} // namespace

bool showHasEnded(float timeSeconds, float renderEndSeconds) {
    return renderEndSeconds > 0.0f && timeSeconds >= renderEndSeconds;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Pump

void RenderViewLogic::scheduleDrawFrame() {
    counters_.ticks.fetch_add(1, std::memory_order_relaxed);
    bool queueFrame = false;
    {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        if (!framePending_) {
            framePending_ = true;
            queueFrame = true;
        }
    }
    if (queueFrame) {
        counters_.queued.fetch_add(1, std::memory_order_relaxed);
        // The task refers to the view by address: the display timer is stopped first in the
        // teardown, and the event loop drops unrun tasks before the view goes.
        postToMainThread([this] { drawFrame(); });
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Frame

void RenderViewLogic::drawFrame() {
    {
        // First, so that a tick arriving while this frame draws queues the next one.
        std::lock_guard<std::recursive_mutex> guard(lock_);
        framePending_ = false;
    }
    if (!app_ || !hasRenderer() || drawFailed_) {
        return;
    }
    const std::chrono::nanoseconds cpuAtStart = threadCpuTime();
    updateDrawableSize();
    FrameInfo frame = timeControl_ != nullptr ? timeControl_->tick() : app_->tick();
    frame.showDurationSeconds = showDurationSeconds_;
    frame.renderEndSeconds = renderEndSeconds_;
    try {
        drawWithRenderer(frame);
    } catch (const std::exception& e) {
        // The renderer has given its in-flight slot back before raising. One report, then the
        // show ends; later frame tasks find drawFailed_ and draw nothing.
        drawFailed_ = true;
        systemLog(std::string(kFrameFailed) + e.what());
        terminateApplication();
        return;
    }
    ++counters_.drawn;
    counters_.frameCpu += threadCpuTime() - cpuAtStart;
    counters_.lastDrawnAt = std::chrono::steady_clock::now();
    if (counters_.drawn == 1) counters_.firstDrawnAt = counters_.lastDrawnAt;
    // Under time control the transport holds the show's end itself.
    if (timeControl_ == nullptr && showHasEnded(frame.timeSeconds, renderEndSeconds_)) {
        terminateApplication();
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Size

void RenderViewLogic::updateDrawableSize() {
    DrawableGeometry geometry;
    geometry.fullScreen = windowIsFullScreen();
    geometry.windowScale = windowBackingScale();
    geometry.mainScreenScale = mainScreenBackingScale();
    const DrawableSize bounds = boundsInPoints();
    geometry.boundsWidth = bounds.width;
    geometry.boundsHeight = bounds.height;

    const DrawableSize pixels = drawableSizeFor(geometry);
    setLayerDrawableSize(pixels);
    if (hasRenderer()) {
        resizeRenderer(surfaceSizeFor(pixels));
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Keys

void RenderViewLogic::keyDown(const KeyPress& key) {
    switch (keyActionFor(key)) {
    case KeyAction::Terminate:
        terminateApplication();
        break;
    case KeyAction::ToggleFullScreen:
        toggleWindowFullScreen();
        break;
    case KeyAction::PassOn:
        passKeyOn(key);
        break;
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Cursor

void RenderViewLogic::hideCursorIfNeeded() {
    if (cursorHidden_) {
        return;
    }
    hideSystemCursor();
    cursorHidden_ = true;
}

void RenderViewLogic::showCursorIfNeeded() {
    if (!cursorHidden_) {
        return;
    }
    showSystemCursor();
    cursorHidden_ = false;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Show start

void RenderViewLogic::startRendering() {
    if (renderingStarted_) {
        return;
    }
    renderingStarted_ = true;
    hideCursorIfNeeded();
    // Show time 0, or the chosen start time, is this moment.
    app_ = showStartSeconds_ > 0.0 ? std::make_unique<App>(showStartSeconds_) : std::make_unique<App>();
    startMusic(showStartSeconds_);
    if (timeControl_ != nullptr) {
        timeControl_->start(showStartSeconds_, showDurationSeconds_, renderEndSeconds_);
    }
    // Whatever happened to the music, the frames run.
    startDisplayTimer();
}

void RenderViewLogic::startMusic(double startSeconds) {
    std::span<const std::byte> music;
    try {
        music = musicBytes();
    } catch (const std::exception& e) {
        // No music file, or one that does not inflate: the show runs silent with no end time.
        systemLog(std::string(kFailedToLoadAudio) + ": " + e.what());
        return;
    }

    // The library releases the block with free(), so it must come from the C heap.
    void* block = std::malloc(music.size());
    int result = -1;
    if (block != nullptr) {
        if (!music.empty()) {
            std::memcpy(block, music.data(), music.size());
        }
        // From here the block belongs to the library, whatever the result.
        result = loadSong(block, static_cast<std::int64_t>(music.size()));
    }
    if (result != 0) {
        systemLog(kFailedToLoadAudio);
        return;
    }

    audioLoaded_ = true;
    showDurationSeconds_ = static_cast<float>(songDuration());
    renderEndSeconds_ = renderEndSecondsForAudio(showDurationSeconds_);
    if (!createPlayer() || startPlayer() != 0) {
        // Silent, but the end time stays.
        systemLog(kFailedToStartAudio);
    } else if (startSeconds > 0.0 && seekPlayer(startSeconds) != 0) {
        // Sought only once started: a player sought before its start cannot play.
        systemLog(kFailedToSeekAudio);
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Time control

bool RenderViewLogic::reloadMusic() {
    if (hasPlayer()) {
        destroyPlayer();
    }
    if (audioLoaded_) {
        destroySong();
        audioLoaded_ = false;
    }
    showDurationSeconds_ = 0.0f;
    renderEndSeconds_ = 0.0f;
    startMusic(0.0);
    return audioLoaded_;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Teardown

void RenderViewLogic::tearDown() {
    showCursorIfNeeded();
    if (hasDisplayTimer()) {
        // After this no tick can reach the view.
        stopAndReleaseDisplayTimer();
    }
    // A song must outlive its player.
    if (hasPlayer()) {
        destroyPlayer();
    }
    if (audioLoaded_) {
        destroySong();  // releases the music block
        audioLoaded_ = false;
    }
}

} // namespace brisvale
