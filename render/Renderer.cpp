// The Renderer facade: each public operation forwards to Renderer::Impl.

#include "render/Renderer.h"

#include "render/RendererImpl.h"

namespace brisvale {

Renderer::Renderer(void* device, void* surface, std::shared_ptr<const DemoArchive> archive, DemoManifest manifest,
                   MainThreadPoster postToMain)
    : impl_(std::make_unique<Impl>(device, surface, std::move(archive), std::move(manifest), std::move(postToMain))) {}

Renderer::~Renderer() = default;

void Renderer::resize(SurfaceSize size) {
    impl_->resize(size);
}

void Renderer::draw(const FrameInfo& frame) {
    impl_->draw(frame);
}

} // namespace brisvale
