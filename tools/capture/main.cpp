// brisvale-capture: draws chosen show times of a demo.dat offscreen, as if the show clock stood
// at each time, and writes each frame as a PNG. Used to look at a show without a display.
//
// [SECTION] Music length
// [SECTION] Capture loop
// [SECTION] main

#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/Renderer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Device.h"
#include "render/gpu/OffscreenSurface.h"
#include "tools/capture/CaptureOptions.h"

#if BRISVALE_CAPTURE_WITH_AUDIO
#include "audio/audio.h"
#endif
#if BRISVALE_CAPTURE_WITH_APP_CORE
#include "app/App.h"
#endif

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace brisvale::capture {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Music length
// ---------------------------------------------------------------------------------------------

struct ShowTiming {
    float showDurationSeconds = 0.0f;
    float renderEndSeconds = 0.0f;
};

ShowTiming timingFor(const DemoArchive& archive, const DemoManifest& manifest) {
    ShowTiming timing;
#if BRISVALE_CAPTURE_WITH_AUDIO
    if (manifest.audioPath.empty() || !archive.contains(manifest.audioPath)) return timing;
    const ArchiveBytes music = archive.open(manifest.audioPath);
    // The audio library takes a block that free() releases, whatever the result.
    void* block = std::malloc(music.size() == 0 ? 1 : music.size());
    if (block == nullptr) return timing;
    std::memcpy(block, music.data(), music.size());
    pelora::gamedev::core::audio_song song{};
    if (pelora::gamedev::core::audio_song_load_from_memory(&song, block, static_cast<std::int64_t>(music.size())) == 0) {
        const double duration = pelora::gamedev::core::audio_song_duration(&song);
        if (duration > 0.0) {
            timing.showDurationSeconds = static_cast<float>(duration);
#if BRISVALE_CAPTURE_WITH_APP_CORE
            timing.renderEndSeconds = renderEndSecondsForAudio(timing.showDurationSeconds);
#endif
        }
    } else {
        std::fprintf(stderr, "Failed to load audio asset\n");
    }
    pelora::gamedev::core::audio_song_destroy(&song);
#else
    (void)archive;
    (void)manifest;
#endif
    return timing;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Capture loop
// ---------------------------------------------------------------------------------------------

// Tasks the renderer posts to "the main thread" (pool growth); run between frames.
class TaskQueue {
public:
    MainThreadPoster poster() {
        return [this](std::function<void()> task) {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        };
    }
    // Runs what is queued; returns how many tasks ran.
    std::size_t run() {
        std::vector<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (auto& task : tasks) task();
        return tasks.size();
    }

private:
    std::mutex mutex_;  // guards tasks_: the completion thread posts, the capture loop runs them
    std::vector<std::function<void()>> tasks_;
};

int capture(const CaptureOptions& options) {
    auto device = gpu::Device::create({});
    auto archive = DemoArchive::load(options.archivePath);
    const DemoManifest manifest = loadDemoManifest(*archive, "demo.ini");
    const std::uint32_t width = options.width.value_or(manifest.defaultWidth);
    const std::uint32_t height = options.height.value_or(manifest.defaultHeight);
    const std::vector<CaptureFrame> frames = planFrames(options, manifest.defaultFps);
    const ShowTiming timing = timingFor(*archive, manifest);

    std::unique_ptr<gpu::OffscreenSurface> surface;
    if (device) surface = std::make_unique<gpu::OffscreenSurface>(*device, width, height);
    TaskQueue tasks;
    // A missing device reaches the renderer as null and fails with its own message.
    Renderer renderer(device.get(), surface.get(), archive, manifest, tasks.poster());
    renderer.resize({width, height});
    std::filesystem::create_directories(options.outputDirectory);

    // The pool can grow at most this often; a frame whose geometry did not fit is drawn again.
    constexpr int kMaxRedraws = 8;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const CaptureFrame& planned = frames[i];
        std::fprintf(stderr, "\rCapturing frame %zu of %zu (t = %.3f s)", i + 1, frames.size(),
                     static_cast<double>(planned.timeSeconds));
        std::fflush(stderr);
        FrameInfo frame;
        frame.timeSeconds = planned.timeSeconds;
        frame.deltaSeconds = planned.deltaSeconds;
        frame.showDurationSeconds = timing.showDurationSeconds;
        frame.renderEndSeconds = timing.renderEndSeconds;
        for (int attempt = 0; attempt < kMaxRedraws; ++attempt) {
            const std::uint64_t before = surface->presentedCount();
            renderer.draw(frame);
            if (surface->presentedCount() == before) throw std::runtime_error("No drawable for the frame");
            device->waitIdle();
            device->completions().drain();
            if (tasks.run() == 0) break;  // growth applied before the next frame
        }
        const std::vector<std::uint8_t> rgba = surface->readbackRGBA();
        const std::string path = (std::filesystem::path(options.outputDirectory) / planned.fileName).string();
        if (stbi_write_png(path.c_str(), static_cast<int>(surface->presentedWidth()),
                           static_cast<int>(surface->presentedHeight()), 4, rgba.data(),
                           static_cast<int>(surface->presentedWidth() * 4)) == 0) {
            throw std::runtime_error("Failed to write image: " + path);
        }
    }
    std::fprintf(stderr, "\rCaptured %zu frame%s to %s\n", frames.size(), frames.size() == 1 ? "" : "s",
                 options.outputDirectory.c_str());
    if (device->validationMessageCount() != 0) {
        std::fprintf(stderr, "brisvale-capture: %u validation messages\n", device->validationMessageCount());
        return 1;
    }
    return 0;
}

} // namespace
} // namespace brisvale::capture

// ---------------------------------------------------------------------------------------------
// [SECTION] main
// ---------------------------------------------------------------------------------------------

int main(int argc, char** argv) {
    using namespace brisvale::capture;
    try {
        const CaptureOptions options = parseCaptureOptions(std::vector<std::string>(argv + 1, argv + argc));
        if (options.help) {
            std::printf("%s\n", captureUsage());
            return 0;
        }
        return capture(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "\nbrisvale-capture: %s\n", error.what());
        return 1;
    }
}
