// brisvale-capture: draws chosen show times of a demo.dat offscreen, as if the show clock stood
// at each time, and writes each frame as a PNG, or a span of the show as a video file with its
// music. Used to look at a show without a display, and to share it.
// Exit status 2 for a command line that cannot be captured, 130 for a video stopped by Ctrl+C
// (the file holds the frames made until then), 1 for any other failure.
//
// [SECTION] Show content
// [SECTION] Music length
// [SECTION] Renderer
// [SECTION] Capture loop
// [SECTION] Video
// [SECTION] main

#include "content/AssetManifest.h"
#include "content/AtomicFile.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "content/ShowSource.h"
#include "content/ShaderSource.h"
#include "render/Renderer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Device.h"
#include "render/gpu/OffscreenSurface.h"
#include "tools/capture/CaptureOptions.h"
#include "tools/capture/ShowMusic.h"
#include "tools/capture/VideoExport.h"
#include "tools/capture/VideoFile.h"

#include "app/App.h"

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
// [SECTION] Show content
// ---------------------------------------------------------------------------------------------

// The one place a show is opened from its path: a show file or a show directory.
std::shared_ptr<DemoArchive> loadShowArchive(const std::string& path) { return loadShow(path); }

// `message` with `where` (the show's file, then an entry or include chain) in front, leaving
// out what the message already ends with.
std::string inShow(const std::string& archivePath, const std::string& where, const std::string& message) {
    auto endsWith = [&](const std::string& name) {
        const std::string tail = ": " + name;
        return message.size() >= tail.size() && message.compare(message.size() - tail.size(), tail.size(), tail) == 0;
    };
    std::string prefix = endsWith(archivePath) ? "" : archivePath + ": ";
    if (!where.empty() && !endsWith(where)) prefix += where + ": ";
    return prefix + message;
}

// Runs `read`, naming the show and `where` in front of a content error.
template <class Read>
auto readInShow(const std::string& archivePath, const std::string& where, Read&& read) {
    try {
        return read();
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(inShow(archivePath, where, error.what()));
    }
}

// Reads the text files the renderer will read, in its order, so that a failure names its file:
// the shader with its include chain, then the asset manifest. They stay in the archive's cache,
// where the renderer finds them again.
void checkShowText(const DemoArchive& archive, const DemoManifest& manifest, const std::string& archivePath) {
    std::vector<std::string> chain;
    try {
        loadMetalSourceWithIncludes(archive, manifest.shaderPath, chain);
    } catch (const std::runtime_error& error) {
        std::string where;
        for (const std::string& file : chain) where += (where.empty() ? "" : " -> ") + file;
        throw std::runtime_error(inShow(archivePath, where, error.what()));
    }
    readInShow(archivePath, manifest.assetManifestPath, [&] { return loadImagePaths(archive, manifest.assetManifestPath); });
}

// After the renderer failed with the archive's own message for damaged content, which image
// it was: it opens them in the asset manifest's order, and those it opened sit in the cache,
// so only the failing one is inflated again (in pieces, kept nowhere).
std::string failingImage(const DemoArchive& archive, const DemoManifest& manifest, const std::string& message) {
    if (message != "Failed to decompress demo archive entry" && message != "Failed to initialize demo archive decompressor") {
        return "";
    }
    for (const std::string& image : loadImagePaths(archive, manifest.assetManifestPath)) {
        try {
            archive.stream(image, [](ArchiveBytes) {});
        } catch (const std::runtime_error&) {
            return image;
        }
    }
    return "";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Music length
// ---------------------------------------------------------------------------------------------

struct ShowTiming {
    float showDurationSeconds = 0.0f;
    float renderEndSeconds = 0.0f;
};

// The show's music, as the player loads it; null without one (with the player's line when the
// music is there but does not load).
std::unique_ptr<ShowMusic> loadMusic(const DemoArchive& archive, const DemoManifest& manifest,
                                     const std::string& archivePath) {
    if (manifest.audioPath.empty() || !archive.contains(manifest.audioPath)) return nullptr;
    const ArchiveBytes music = readInShow(archivePath, manifest.audioPath, [&] { return archive.open(manifest.audioPath); });
    std::unique_ptr<ShowMusic> loaded = ShowMusic::load(music);
    if (!loaded) std::fprintf(stderr, "Failed to load audio asset\n");
    return loaded;
}

ShowTiming timingFor(const ShowMusic* music) {
    ShowTiming timing;
    if (music != nullptr && music->durationSeconds() > 0.0) {
        timing.showDurationSeconds = static_cast<float>(music->durationSeconds());
        timing.renderEndSeconds = renderEndSecondsForAudio(timing.showDurationSeconds);
    }
    return timing;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Renderer
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

// The renderer on an offscreen surface of the capture's size, in the order it is torn down.
struct OffscreenShow {
    std::unique_ptr<gpu::Device> device;
    std::unique_ptr<gpu::OffscreenSurface> surface;
    TaskQueue tasks;
    std::unique_ptr<Renderer> renderer;
};

void startRenderer(OffscreenShow& show, const std::shared_ptr<DemoArchive>& archive, const DemoManifest& manifest,
                   const std::string& showPath, CaptureSize size) {
    // A missing device reaches the renderer as null and fails with its own message.
    try {
        show.device = gpu::Device::create({});
    } catch (const gpu::Error&) {
        // no device: the renderer's message says so
    }
    if (show.device) show.surface = std::make_unique<gpu::OffscreenSurface>(*show.device, size.width, size.height);
    try {
        show.renderer = std::make_unique<Renderer>(show.device.get(), show.surface.get(), archive, manifest,
                                                   show.tasks.poster());
    } catch (const std::runtime_error& error) {
        const std::string image = failingImage(*archive, manifest, error.what());
        if (image.empty()) throw;
        throw std::runtime_error(inShow(showPath, image, error.what()));
    }
    show.renderer->resize({size.width, size.height});
}

int reportValidation(const gpu::Device& device) {
    if (device.validationMessageCount() == 0) return 0;
    std::fprintf(stderr, "brisvale-capture: %u validation messages\n", device.validationMessageCount());
    return 1;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Capture loop
// ---------------------------------------------------------------------------------------------

// PNG bytes of the surface's last presented image.
std::vector<std::uint8_t> encodePng(gpu::OffscreenSurface& surface) {
    const std::vector<std::uint8_t> rgba = surface.readbackRGBA();
    std::vector<std::uint8_t> png;
    auto append = [](void* context, void* data, int size) {
        auto& out = *static_cast<std::vector<std::uint8_t>*>(context);
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        out.insert(out.end(), bytes, bytes + size);
    };
    const int width = static_cast<int>(surface.presentedWidth());
    if (stbi_write_png_to_func(append, &png, width, static_cast<int>(surface.presentedHeight()), 4, rgba.data(),
                               width * 4) == 0) {
        throw std::runtime_error("Failed to encode image");
    }
    return png;
}

int capture(const CaptureOptions& options) {
    const std::string& showPath = options.archivePath;
    auto archive = readInShow(showPath, "", [&] { return loadShowArchive(showPath); });
    const DemoManifest manifest = readInShow(showPath, "demo.ini", [&] { return loadDemoManifest(*archive, "demo.ini"); });
    const CaptureSize size = captureSize(options, manifest.defaultWidth, manifest.defaultHeight);
    const FramePlan frames(options, manifest.defaultFps);
    checkShowText(*archive, manifest, showPath);
    const ShowTiming timing = timingFor(loadMusic(*archive, manifest, showPath).get());

    OffscreenShow show;
    startRenderer(show, archive, manifest, showPath, size);
    gpu::Device& device = *show.device;
    gpu::OffscreenSurface& surface = *show.surface;
    Renderer& renderer = *show.renderer;
    std::filesystem::create_directories(options.outputDirectory);

    try {
        for (std::uint64_t i = 0; i < frames.size(); ++i) {
            const CaptureFrame planned = frames.frame(i);
            std::fprintf(stderr, "\rCapturing frame %llu of %llu (t = %.3f s)", static_cast<unsigned long long>(i + 1),
                         static_cast<unsigned long long>(frames.size()), static_cast<double>(planned.timeSeconds));
            std::fflush(stderr);
            FrameInfo frame;
            frame.timeSeconds = planned.timeSeconds;
            frame.deltaSeconds = planned.deltaSeconds;
            frame.showDurationSeconds = timing.showDurationSeconds;
            frame.renderEndSeconds = timing.renderEndSeconds;
            for (int attempt = 0; attempt < kMaxRedraws; ++attempt) {
                const std::uint64_t before = surface.presentedCount();
                renderer.draw(frame);
                if (surface.presentedCount() == before) throw std::runtime_error("No drawable for the frame");
                device.waitIdle();
                device.completions().drain();
                if (show.tasks.run() == 0) break;  // growth applied before the next frame
            }
            // A new file, or the old one replaced whole; never written through a FIFO or device.
            replaceFileAtomically((std::filesystem::path(options.outputDirectory) / planned.fileName).string(),
                                  encodePng(surface));
        }
    } catch (...) {
        std::fputc('\n', stderr);  // ends the progress line
        throw;
    }
    std::fprintf(stderr, "\rCaptured %llu frame%s to %s\n", static_cast<unsigned long long>(frames.size()),
                 frames.size() == 1 ? "" : "s", options.outputDirectory.c_str());
    return reportValidation(device);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Video
// ---------------------------------------------------------------------------------------------

int captureVideo(const CaptureOptions& options) {
    const std::string& showPath = options.archivePath;
    auto archive = readInShow(showPath, "", [&] { return loadShowArchive(showPath); });
    const DemoManifest manifest = readInShow(showPath, "demo.ini", [&] { return loadDemoManifest(*archive, "demo.ini"); });
    const CaptureSize size = captureSize(options, manifest.defaultWidth, manifest.defaultHeight);
    checkShowText(*archive, manifest, showPath);
    const std::unique_ptr<ShowMusic> music = loadMusic(*archive, manifest, showPath);
    const ShowTiming timing = timingFor(music.get());
    const FramePlan frames(options, manifest.defaultFps, timing.renderEndSeconds);

    // Every setting is tried on the encoders before anything is drawn.
    VideoSettings settings;
    settings.path = options.videoPath;
    settings.codec = options.codec;
    settings.quality = options.quality;
    settings.width = size.width;
    settings.height = size.height;
    settings.fps = frames.fps();
    if (music) {
        settings.musicRate = music->rate();
        settings.musicChannels = music->channels();
    }
    VideoFile file(settings);

    OffscreenShow show;
    startRenderer(show, archive, manifest, showPath, size);
    show.surface->enableFrameReadback();
    const VideoExport job{*show.renderer, *show.surface, [&] { return show.tasks.run(); }, frames,
                          timing.showDurationSeconds, timing.renderEndSeconds, file, music.get()};
    const std::uint64_t made = exportVideo(job);
    if (const int status = reportValidation(*show.device); status != 0) return status;
    const double seconds = static_cast<double>(made) / frames.fps();
    if (made < frames.size()) {
        if (made == 0) {
            std::fprintf(stderr, "Interrupted before the first frame; nothing written\n");
            return 130;
        }
        file.commit();
        std::fprintf(stderr, "Interrupted: wrote %llu of %llu frames (%.3f s) to %s\n",
                     static_cast<unsigned long long>(made), static_cast<unsigned long long>(frames.size()), seconds,
                     options.videoPath.c_str());
        return 130;
    }
    file.commit();
    std::fprintf(stderr, "Wrote %llu frames (%.3f s, %s) to %s\n", static_cast<unsigned long long>(made), seconds,
                 file.encoderName().c_str(), options.videoPath.c_str());
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
            std::fputs(captureHelp().c_str(), stdout);
            return 0;
        }
        if (options.videoPath.empty()) return capture(options);
        holdInterrupts();  // before the first thread starts
        return captureVideo(options);
    } catch (const CaptureOptionError& error) {
        std::fprintf(stderr, "brisvale-capture: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "brisvale-capture: %s\n", error.what());
        return 1;
    }
}
