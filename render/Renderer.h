#pragma once
// The show's GPU renderer: a facade over Renderer::Impl (RendererImpl.h), which owns every GPU
// object of the show. Construct once on the main thread, then resize and draw from that thread.
// The author's tools also replace the show's shaders and images while it plays: prepared on any
// thread, installed on the main thread between two draws.

#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/FrameInfo.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace brisvale {

namespace gpu {
class Device;
class Surface;
} // namespace gpu

// Runs a task on the application's main thread (later, from any thread).
using MainThreadPoster = std::function<void(std::function<void()>)>;

class Renderer {
public:
    // device and surface outlive the renderer; either may be null, which fails with the
    // system's own message. pipelineCacheDirectory: where compiled pipelines are kept between
    // runs (userPipelineCacheDirectory() in PipelineCacheFile.h); none, the renderer reads and
    // writes no file. Throws std::runtime_error with one line on any failure.
    Renderer(gpu::Device* device, gpu::Surface* surface, std::shared_ptr<const DemoArchive> archive,
             DemoManifest manifest, MainThreadPoster postToMain,
             std::optional<std::filesystem::path> pipelineCacheDirectory = std::nullopt);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    void resize(SurfaceSize size);
    void draw(const FrameInfo& frame);

    // Main thread, between draws: the scene and composite passes render at this fraction of the
    // drawable's size, clamped to [0.25, 1], and are stretched over the drawable with linear
    // filtering; the shaders' resolution is then the size rendered. At 1, the default, frames are
    // drawn at the drawable's own size exactly as without it.
    void setRenderScale(float scale);

    // Compiled stages with their pipelines, and a decoded, uploaded image array: opaque, made by
    // this renderer for this renderer.
    struct PreparedShaders;
    struct PreparedImages;
    // Any thread, also while frames are drawn; the renderer outlives the call, and nothing else
    // uses `archive` meanwhile (an archive takes one caller at a time). Throw the same one-line
    // errors construction would for the same files.
    std::shared_ptr<PreparedShaders> prepareShaders(const DemoArchive& archive, std::string_view shaderPath) const;
    std::shared_ptr<PreparedImages> prepareImages(const DemoArchive& archive,
                                                  std::string_view assetManifestPath) const;
    // Main thread, between draws: the next frame draws with them. Frames in flight keep what
    // they were given; the old objects go once no frame uses them. Nothing waits for the GPU.
    void installShaders(std::shared_ptr<PreparedShaders> shaders);
    void installImages(std::shared_ptr<PreparedImages> images);

    // Main thread: text drawn over the picture as a last pass, several lines, at most a few
    // thousand characters (the rest is cut off). Empty: no pass, and nothing made for it. The
    // first text makes the pass's pipeline and buffers; when they cannot be made, throws
    // std::runtime_error with one line.
    void setOverlayText(std::string text);
    // Seconds of GPU time of the most recent completed frame (timestamp queries; where the queue
    // has none, from submission to the fence's signal); 0 before the first. Any thread.
    double lastFrameGpuSeconds() const;

    struct Impl;

private:
    friend class RendererTesting;
    std::unique_ptr<Impl> impl_;
};

} // namespace brisvale
