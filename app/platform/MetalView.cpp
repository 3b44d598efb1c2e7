// The render view on SDL2: stage A, the window, the renderer, the music, author mode and the
// display timer.
//
// [SECTION] Stage A
// [SECTION] Window, screen, layer
// [SECTION] Renderer
// [SECTION] Music
// [SECTION] Author mode
// [SECTION] Display timer

#include "app/platform/MetalView.h"

#include <SDL2/SDL_vulkan.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/BundleResource.h"
#include "app/platform/SystemLog.h"
#include "content/ShowSource.h"
#include "render/PipelineCacheFile.h"
#include "render/gpu/WindowSurface.h"

namespace brisvale {
namespace {

namespace audio = pelora::gamedev::core;

constexpr const char* kDemoResource = "demo.dat";
constexpr const char* kDemoManifestPath = "demo.ini";

// The instance extensions the window's surface needs. A window that cannot tell gives none, and
// the device is then made without presentation, which the surface reports.
std::vector<std::string> surfaceInstanceExtensions(SDL_Window* window) {
    unsigned count = 0;
    if (!SDL_Vulkan_GetInstanceExtensions(window, &count, nullptr)) {
        return {};
    }
    std::vector<const char*> names(count);
    if (!SDL_Vulkan_GetInstanceExtensions(window, &count, names.data())) {
        return {};
    }
    return std::vector<std::string>(names.begin(), names.begin() + count);
}

// The one place the show's archive is loaded. Without SHOW it is the bundle's
// demo.dat; SHOW is loaded under the path as given, so that every message names it that way.
std::shared_ptr<const DemoArchive> loadShowArchive(const PlayerOptions& options) {
    if (options.showKind == ShowKind::Bundled) {
        const std::optional<std::string> path = bundleResourcePath(runningExecutableDirectory(), kDemoResource);
        if (!path) {
            throw std::runtime_error("Missing demo.dat in app bundle");
        }
        return DemoArchive::load(*path);
    }
    // A packed file, or a show directory read through the same archive interface.
    return loadShow(options.showPath);
}

} // namespace

void MetalView::RendererRelease::operator()(Renderer* renderer) {
    delete renderer;
    // The surface's swapchain belongs to the device: surface first.
    surface.reset();
    device.reset();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Stage A

MetalView::MetalView(ViewFrame frame, SDL_Window* hostWindow, MainThreadQueue& mainQueue,
                     std::function<void()> terminate, const PlayerOptions& options)
    : mainQueue_(mainQueue), terminate_(std::move(terminate)), bounds_{frame.width, frame.height} {
    try {
        setShowStartSeconds(options.startSeconds);

        // A missing device is passed on: the renderer turns it into its own message.
        gpu::DeviceOptions deviceOptions;
        deviceOptions.instanceExtensions = surfaceInstanceExtensions(hostWindow);
        deviceOptions.validation = options.validation;
        try {
            _device = gpu::Device::create(deviceOptions);
        } catch (const gpu::Error&) {
            // no device: the renderer's message says so
        }
        if (_device) {
            _metalLayer = gpu::createWindowSurface(*_device, hostWindow);
        }

        archive_ = loadShowArchive(options);
        manifest_ = loadDemoManifest(*archive_, kDemoManifestPath);

        MainThreadPoster postToMain = [&queue = mainQueue_](std::function<void()> task) {
            queue.post(std::move(task));
        };
        // Compiled pipelines are kept between runs for the author's tools only: the player
        // started without arguments writes no file of the user's.
        std::optional<std::filesystem::path> pipelineCache;
        if (options.withArguments) {
            pipelineCache = userPipelineCacheDirectory();
        }
        renderer_ = std::unique_ptr<Renderer, RendererRelease>(
            new Renderer(_device.get(), _metalLayer.get(), archive_, manifest_, std::move(postToMain),
                         std::move(pipelineCache)),
            RendererRelease{_device, _metalLayer});
        // Without arguments the scale stays 1: the renderer draws at the drawable's size exactly.
        if (options.renderScale.automatic) dynamicResolution_ = std::make_unique<DynamicResolution>();
        renderer_->setRenderScale(dynamicResolution_ ? dynamicResolution_->scale() : options.renderScale.fixed);

        // No window yet: the main screen's scale applies.
        updateDrawableSize();

        // Last: nothing after it may fail, and it starts watching the show directory.
        if (options.showKind == ShowKind::Directory) {
            AuthorModeHost& host = *this;
            author_ = std::make_unique<AuthorMode>(host, *renderer_, mainQueue_, options, *archive_, manifest_);
            setTimeControl(&author_->transport());
        }
    } catch (...) {
        // The partly built view tears down as the error leaves: nothing of stage B exists yet.
        tearDown();
        throw;
    }
}

MetalView::~MetalView() { tearDown(); }

void MetalView::viewDidMoveToWindow(SDL_Window* window) {
    window_ = window;
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(window_, &width, &height);
    setFrameSize(width, height);
}

void MetalView::setFrameSize(double width, double height) {
    bounds_ = {width, height};
    updateDrawableSize();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Window, screen, layer

bool MetalView::windowIsFullScreen() const {
    return window_ != nullptr && (SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN) != 0;
}

double MetalView::windowBackingScale() const {
    if (window_ == nullptr) {
        return 0.0;
    }
    int points = 0;
    int pixels = 0;
    int unused = 0;
    SDL_GetWindowSize(window_, &points, &unused);
    SDL_Vulkan_GetDrawableSize(window_, &pixels, &unused);
    return points > 0 && pixels > 0 ? static_cast<double>(pixels) / points : 1.0;
}

double MetalView::mainScreenBackingScale() const {
    // SDL 2 on X11 draws one pixel per point on every screen.
    return 1.0;
}

DrawableSize MetalView::boundsInPoints() const { return bounds_; }

void MetalView::setLayerDrawableSize(DrawableSize pixels) {
    if (_metalLayer) {
        const SurfaceSize size = surfaceSizeFor(pixels);
        _metalLayer->setDrawableSize(size.width, size.height);
    }
}

void MetalView::postToMainThread(std::function<void()> task) { mainQueue_.post(std::move(task)); }

void MetalView::terminateApplication() { terminate_(); }

void MetalView::toggleWindowFullScreen() {
    if (window_ == nullptr) {
        return;
    }
    const bool fullScreen = (SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN) != 0;
    if (SDL_SetWindowFullscreen(window_, fullScreen ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP) != 0) {
        brisvale::systemLog(std::string("Toggle full screen failed: ") + SDL_GetError());
    }
}

void MetalView::passKeyOn(const KeyPress& key) {
    // Behind the view only author mode's keys; the menu has already seen the key.
    if (author_) {
        author_->keyDown(key);
    }
}

void MetalView::hideSystemCursor() { SDL_ShowCursor(SDL_DISABLE); }

void MetalView::showSystemCursor() { SDL_ShowCursor(SDL_ENABLE); }

void MetalView::systemLog(std::string_view line) { brisvale::systemLog(line); }

// ---------------------------------------------------------------------------------------------
// [SECTION] Renderer

bool MetalView::hasRenderer() const { return renderer_ != nullptr; }

void MetalView::resizeRenderer(SurfaceSize size) { renderer_->resize(size); }

void MetalView::drawWithRenderer(const FrameInfo& frame) {
    renderer_->draw(frame);
    // --scale auto: the next frame's scale, from the GPU time of the latest completed frame.
    if (dynamicResolution_) {
        renderer_->setRenderScale(dynamicResolution_->frameDrawn(renderer_->lastFrameGpuSeconds()));
    }
    if (author_) {
        author_->frameDrawn();
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Music

std::span<const std::byte> MetalView::musicBytes() const {
    return std::as_bytes(archive_->open(manifest_.audioPath));
}

int MetalView::loadSong(void* block, std::int64_t size) {
    return audio::audio_song_load_from_memory(&audioSong_, block, size);
}

double MetalView::songDuration() { return audio::audio_song_duration(&audioSong_); }

bool MetalView::createPlayer() {
    audioPlayer_ = audio::audio_player_create(&audioSong_);
    return audioPlayer_ != nullptr;
}

int MetalView::startPlayer() { return audio::audio_player_start(audioPlayer_); }

int MetalView::seekPlayer(double seconds) { return audio::audio_player_seek(audioPlayer_, seconds); }

bool MetalView::hasPlayer() const { return audioPlayer_ != nullptr; }

void MetalView::destroyPlayer() {
    audio::audio_player_destroy(audioPlayer_);
    audioPlayer_ = nullptr;
}

void MetalView::destroySong() { audio::audio_song_destroy(&audioSong_); }

// ---------------------------------------------------------------------------------------------
// [SECTION] Author mode

bool MetalView::pauseMusic() { return audio::audio_player_pause(audioPlayer_) == 0; }

bool MetalView::resumeMusic() { return audio::audio_player_resume(audioPlayer_) == 0; }

bool MetalView::seekMusic(double seconds) { return audio::audio_player_seek(audioPlayer_, seconds) == 0; }

double MetalView::musicSeconds() { return audio::audio_player_get_time(audioPlayer_); }

bool MetalView::musicDone() { return audio::audio_player_is_done(audioPlayer_); }

bool MetalView::adoptShow(std::shared_ptr<const DemoArchive> archive, const DemoManifest& manifest) {
    archive_ = std::move(archive);
    manifest_ = manifest;
    // Before the show starts, stage B loads the music from these.
    return isRenderingStarted() ? reloadMusic() : true;
}

void MetalView::setWindowTitle(const std::string& title) {
    if (window_ != nullptr) {
        SDL_SetWindowTitle(window_, title.c_str());
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Display timer

void MetalView::startDisplayTimer() {
    SDL_DisplayMode mode{};
    const int display = window_ != nullptr ? SDL_GetWindowDisplayIndex(window_) : 0;
    const int reportedHz = SDL_GetCurrentDisplayMode(display < 0 ? 0 : display, &mode) == 0 ? mode.refresh_rate : 0;
    // The timer's thread reaches the view by address; the view stops it before anything the tick
    // touches is destroyed.
    const double refreshHz = DisplayTimer::refreshRateOr60(reportedHz);
    if (dynamicResolution_) dynamicResolution_->setFrameInterval(1.0 / refreshHz);
    displayLink_ = std::make_unique<DisplayTimer>(refreshHz, [this] { scheduleDrawFrame(); });
    displayLink_->start();
}

bool MetalView::hasDisplayTimer() const { return displayLink_ != nullptr; }

void MetalView::stopAndReleaseDisplayTimer() {
    displayLink_->stop();
    displayLink_.reset();
}

} // namespace brisvale
