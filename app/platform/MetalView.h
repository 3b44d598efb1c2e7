#pragma once

// The render view: the window's only content, the program's frame pump, and the owner of the
// running show (clock, renderer, archive, manifest, song, player, display timer, GPU device and
// presentation surface). Its platform-free half is RenderViewLogic; this half answers the
// logic's hooks with SDL, the renderer and the audio library. Main thread, except where noted.

#include <SDL2/SDL.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "app/CommandLine.h"
#include "app/DisplayTimer.h"
#include "app/DynamicResolution.h"
#include "app/MainThreadQueue.h"
#include "app/RenderViewLogic.h"
#include "app/platform/AuthorMode.h"
#include "audio/audio.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/Renderer.h"
#include "render/gpu/Device.h"
#include "render/gpu/Surface.h"

namespace brisvale {

// A view's frame rectangle in points.
struct ViewFrame {
    double x = 0.0;
    double y = 0.0;
    double width = 0.0;
    double height = 0.0;
};

class MetalView final : public RenderViewLogic, private AuthorModeHost {
public:
    // Stage A of the launch: GPU device and surface, the show (demo.dat from the bundle, or SHOW
    // from the command line), demo.ini, renderer, first drawable size. `hostWindow` is the
    // not-yet-shown window whose surface the layer presents to; the view is not in it until
    // viewDidMoveToWindow. Raises a one-line std::runtime_error on any failure.
    MetalView(ViewFrame frame, SDL_Window* hostWindow, MainThreadQueue& mainQueue,
              std::function<void()> terminate, const PlayerOptions& options = {});
    ~MetalView();  // teardown, then the members in reverse order of declaration
    MetalView(const MetalView&) = delete;
    MetalView& operator=(const MetalView&) = delete;

    bool acceptsFirstResponder() const { return true; }
    // The view is now its window's content (and its first responder: SDL sends it every key).
    void viewDidMoveToWindow(SDL_Window* window);
    // The window's client area changed size, in points.
    void setFrameSize(double width, double height);
    // The render scale's controller under --scale auto; null otherwise.
    const DynamicResolution* dynamicResolution() const { return dynamicResolution_.get(); }

protected:
    bool windowIsFullScreen() const override;
    double windowBackingScale() const override;
    double mainScreenBackingScale() const override;
    DrawableSize boundsInPoints() const override;
    void setLayerDrawableSize(DrawableSize pixels) override;
    void postToMainThread(std::function<void()> task) override;
    void terminateApplication() override;
    void toggleWindowFullScreen() override;
    void passKeyOn(const KeyPress& key) override;
    void hideSystemCursor() override;
    void showSystemCursor() override;
    void systemLog(std::string_view line) override;

    bool hasRenderer() const override;
    void resizeRenderer(SurfaceSize size) override;
    void drawWithRenderer(const FrameInfo& frame) override;

    std::span<const std::byte> musicBytes() const override;
    int loadSong(void* block, std::int64_t size) override;
    double songDuration() override;
    bool createPlayer() override;
    int startPlayer() override;
    int seekPlayer(double seconds) override;
    bool hasPlayer() const override;
    void destroyPlayer() override;
    void destroySong() override;

    void startDisplayTimer() override;
    bool hasDisplayTimer() const override;
    void stopAndReleaseDisplayTimer() override;

private:
    // Author mode's music transport and view (a show directory only).
    bool pauseMusic() override;
    bool resumeMusic() override;
    bool seekMusic(double seconds) override;
    double musicSeconds() override;
    bool musicDone() override;
    bool adoptShow(std::shared_ptr<const DemoArchive> archive, const DemoManifest& manifest) override;
    float musicDurationSeconds() const override { return showDurationSeconds(); }
    float musicEndSeconds() const override { return renderEndSeconds(); }
    void setWindowTitle(const std::string& title) override;
    std::uint64_t framesDrawn() const override { return counters().drawn; }
    std::uint64_t displayTicks() const override { return counters().ticks.load(); }

    // The renderer keeps its device and surface alive as long as it lives, as a GPU renderer
    // holds strong references to them: the view may release its own references first.
    struct RendererRelease {
        std::shared_ptr<gpu::Device> device;
        std::shared_ptr<gpu::Surface> surface;
        void operator()(Renderer* renderer);
    };

    // Not owned: the event loop's queue and the shared application's quit request.
    MainThreadQueue& mainQueue_;
    std::function<void()> terminate_;
    SDL_Window* window_ = nullptr;  // set once the view is the window's content
    DrawableSize bounds_;

    // The show, in the order the view declares it (app_, the clock, and renderingStarted_,
    // framePending_ with the view's lock, audioLoaded_, cursorHidden_, showDurationSeconds_,
    // renderEndSeconds_ live in RenderViewLogic). Destroyed bottom-up: _metalLayer, _device,
    // audioSong_, manifest_, archive_, renderer_, then app_.
    std::unique_ptr<Renderer, RendererRelease> renderer_;
    std::shared_ptr<const DemoArchive> archive_;
    DemoManifest manifest_;
    std::unique_ptr<DisplayTimer> displayLink_;
    std::unique_ptr<DynamicResolution> dynamicResolution_;  // --scale auto only
    pelora::gamedev::core::audio_song audioSong_{};
    pelora::gamedev::core::audio_player* audioPlayer_ = nullptr;
    std::shared_ptr<gpu::Device> _device;
    std::shared_ptr<gpu::Surface> _metalLayer;
    // Author mode, when SHOW is a directory. Goes first: its watcher's thread uses the renderer.
    std::unique_ptr<AuthorMode> author_;
};

} // namespace brisvale
