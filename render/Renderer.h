#pragma once
// The show's GPU renderer: a facade over Renderer::Impl (RendererImpl.h), which owns every GPU
// object of the show. Construct once on the main thread, then resize and draw from that thread.

#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/FrameInfo.h"

#include <functional>
#include <memory>

namespace brisvale {

// Runs a task on the application's main thread (later, from any thread).
using MainThreadPoster = std::function<void(std::function<void()>)>;

class Renderer {
public:
    // device: a gpu::Device*, surface: a gpu::Surface*, both outliving the renderer.
    // Throws std::runtime_error with one line on any failure.
    Renderer(void* device, void* surface, std::shared_ptr<const DemoArchive> archive, DemoManifest manifest,
             MainThreadPoster postToMain);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    void resize(SurfaceSize size);
    void draw(const FrameInfo& frame);

    struct Impl;

private:
    friend class RendererTesting;
    std::unique_ptr<Impl> impl_;
};

} // namespace brisvale
