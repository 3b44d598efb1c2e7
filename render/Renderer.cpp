// The Renderer facade: each public operation forwards to Renderer::Impl.

#include "render/Renderer.h"

#include "render/RendererImpl.h"

namespace brisvale {

Renderer::Renderer(gpu::Device* device, gpu::Surface* surface, std::shared_ptr<const DemoArchive> archive,
                   DemoManifest manifest, MainThreadPoster postToMain,
                   std::optional<std::filesystem::path> pipelineCacheDirectory)
    : impl_(std::make_unique<Impl>(device, surface, std::move(archive), std::move(manifest), std::move(postToMain),
                                   std::move(pipelineCacheDirectory))) {}

Renderer::~Renderer() = default;

void Renderer::resize(SurfaceSize size) {
    impl_->resize(size);
}

void Renderer::draw(const FrameInfo& frame) {
    impl_->draw(frame);
}

void Renderer::setRenderScale(float scale) {
    impl_->setRenderScale(scale);
}

std::shared_ptr<Renderer::PreparedShaders> Renderer::prepareShaders(const DemoArchive& archive,
                                                                    std::string_view shaderPath) const {
    return impl_->prepareShaders(archive, shaderPath);
}

std::shared_ptr<Renderer::PreparedImages> Renderer::prepareImages(const DemoArchive& archive,
                                                                  std::string_view assetManifestPath) const {
    return impl_->prepareImages(archive, assetManifestPath);
}

void Renderer::installShaders(std::shared_ptr<PreparedShaders> shaders) {
    impl_->installShaders(std::move(shaders));
}

void Renderer::installImages(std::shared_ptr<PreparedImages> images) {
    impl_->installImages(std::move(images));
}

void Renderer::setOverlayText(std::string text) {
    impl_->setOverlayText(std::move(text));
}

double Renderer::lastFrameGpuSeconds() const {
    return impl_->lastFrameGpuSeconds.load();
}

} // namespace brisvale
