// One frame: drawable, in-flight slot, phase, compute pass, scene pass, composite pass, the
// stretch of a scaled picture over the drawable, the text over the picture, presentation and the
// completion handlers (with the frame's GPU time); and the depth and scaled colour targets that
// follow the drawable.
//
// [SECTION] Phases
// [SECTION] Draw
// [SECTION] Passes
// [SECTION] Completion handlers
// [SECTION] Depth target
// [SECTION] Render scale
// [SECTION] Text overlay

#include "render/RendererImpl.h"

#include "render/RenderLog.h"
#include "render/ShaderInterface.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace brisvale {
namespace {

constexpr const char* kNoDepthTexture = "Failed to create depth texture";
constexpr const char* kNoScaledTarget = "Failed to create scaled render target";
constexpr std::array<float, 4> kClearColor = {0.02f, 0.02f, 0.025f, 1.0f};

PassParams passParams(std::uint32_t index) {
    PassParams params;
    params.passIndex = index;
    return params;
}

// A side of the drawable at a render scale: rounded, and never below one pixel.
std::uint32_t scaledSide(std::uint32_t side, float scale) {
    return std::max<std::uint32_t>(1, static_cast<std::uint32_t>(std::lround(static_cast<double>(side) * scale)));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Phases
// ---------------------------------------------------------------------------------------------

FramePhase phaseForTime(float t) {
    // A NaN fails both comparisons and lands in the middle.
    if (t < renderer_limits::kIntroEndSeconds) return FramePhase::Intro;
    if (t >= renderer_limits::kFinaleStartSeconds) return FramePhase::Finale;
    return FramePhase::Middle;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Draw
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::draw(const FrameInfo& frame) {
    // The drawable first: a frame without one leaves every slot and index as it was.
    if (!layer->nextDrawable(drawable)) return;
    inFlightSemaphore.acquire();
    const std::uint32_t inFlight = framesInFlight.fetch_add(1) + 1;
    if (inFlight > mostFramesInFlight.load()) mostFramesInFlight.store(inFlight);
    const std::uint32_t slotIndex = requestBufferIndex;
    gpu::CommandBuffer& commands = commandQueue->buffer(slotIndex);
    VkResult result = VK_SUCCESS;
    try {
        encode(frame, slotIndex, commands);
        slots[slotIndex].submitted = Clock::now();
        result = submit(commands);
    } catch (...) {
        abandonFrame();
        throw;
    }
    if (result != VK_SUCCESS) {
        // A GPU error the show survives: one line, and the next frame is drawn as usual.
        renderLog(RenderLogItem::CommandBufferFailed, gpu::resultName(result));
        abandonFrame();
        return;
    }
    // Only a submitted frame moves the rotation on, so a failed one leaves it (and the slots) in step.
    requestBufferIndex = (slotIndex + 1) % renderer_limits::kFramesInFlight;
    device->completions().watch(commands.fence(), &slots[slotIndex]);
    layer->present(drawable);
}

VkResult Renderer::Impl::submit(gpu::CommandBuffer& commands) {
    if (injectedFailures.frames > 0) {
        --injectedFailures.frames;
        if (injectedFailures.raises) throw std::runtime_error("Injected frame failure");
        return injectedFailures.result;
    }
    return commands.submit(gpu::SubmitSync{drawable.wait, drawable.waitStage, drawable.signal});
}

void Renderer::Impl::abandonFrame() {
    // Nothing was submitted. The drawable goes back to the surface (a swapchain image that is
    // never presented is lost to every later frame), and the slot to the next frame.
    layer->giveBack(drawable);
    framesInFlight.fetch_sub(1);
    inFlightSemaphore.release();
}

void Renderer::Impl::encode(const FrameInfo& frame, std::uint32_t slotIndex, gpu::CommandBuffer& commands) {
    using namespace shader_interface;
    // Below scale 1 the passes draw into a smaller target of their own, stretched over the
    // drawable at the end; at 1 they draw into the drawable itself.
    const bool scaled = renderScale < 1.0f;
    if (scaled) {
        ensureScaledTarget(scaledSide(drawable.texture->width(), renderScale),
                           scaledSide(drawable.texture->height(), renderScale));
    } else {
        scaledTarget.reset();  // frames in flight keep theirs
    }
    const gpu::Texture& target = scaled ? *scaledTarget : *drawable.texture;
    ensureDepthTexture(target.width(), target.height());

    // The slot three frames back has completed (the semaphore, and handlers run in order), so
    // its command buffer, descriptor sets and keep-alives are free again.
    FrameSlot& slot = slots[slotIndex];
    slot.request = geometryRequestBuffers[slotIndex];  // this frame's request record

    const FramePhase phase = phaseForTime(frame.timeSeconds);
    const bool runsCompute = phase != FramePhase::Middle;
    const std::uint32_t capacity = vertexCapacity.load();

    FramePushConstants constants;
    // Scaled, the shaders draw relative to the size they are rendered at.
    constants.scene.resolution = {static_cast<float>(scaled ? target.width() : surfaceSize.width),
                                  static_cast<float>(scaled ? target.height() : surfaceSize.height)};
    constants.scene.timeSeconds = frame.timeSeconds;
    constants.scene.deltaSeconds = frame.deltaSeconds;
    constants.scene.showDurationSeconds = frame.showDurationSeconds;
    constants.scene.renderEndSeconds = frame.renderEndSeconds;
    constants.scene.vertexCapacity = capacity;
    constants.scene.imageCount = imageCount;

    // Descriptor sets of this slot: no frame in flight uses them now.
    gpu::DescriptorSetWriter(*device, slot.sceneSet)
        .storageBuffer(kVertexPoolBinding, *generatedVertexBuffer)
        .storageBuffer(kIndirectArgumentsBinding, *indirectDrawArgumentBuffer)
        .storageBuffer(kGeometryRequestBinding, *slot.request)
        .sampledTexture(kImageArrayBinding, *imageTextureArray, *imageSampler, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
        .sampledTexture(kSceneDepthBinding, *depthPlaceholder, *depthSampler, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
        .commit();
    if (phase == FramePhase::Finale) {
        gpu::DescriptorSetWriter(*device, slot.compositeSet)
            .storageBuffer(kVertexPoolBinding, *generatedVertexBuffer)
            .storageBuffer(kIndirectArgumentsBinding, *indirectDrawArgumentBuffer)
            .storageBuffer(kGeometryRequestBinding, *slot.request)
            .sampledTexture(kImageArrayBinding, *imageTextureArray, *imageSampler,
                            VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
            .sampledTexture(kSceneDepthBinding, *depthTexture, *depthSampler, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
            .commit();
    }

    commands.begin();
    if (timestamps) timestamps->begin(commands.handle(), slotIndex);
    layer->encodeBegin(commands, drawable);
    if (scaled) {
        // The last frame's stretch read it, and its passes wrote it; it is cleared, so its
        // contents do not matter.
        commands.imageBarrier(target, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                              VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT | VK_PIPELINE_STAGE_2_BLIT_BIT,
                              VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT, VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                              VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT);
    }

    // -----------------------------------------------------------------------------------------
    // [SECTION] Passes
    // -----------------------------------------------------------------------------------------
    const gpu::PipelineLayout& layout = *pipelineLayout;
    if (runsCompute) {
        // Earlier frames' draws read the pool and the arguments; their compute passes wrote them.
        commands.memoryBarrier(VK_PIPELINE_STAGE_2_VERTEX_SHADER_BIT | VK_PIPELINE_STAGE_2_DRAW_INDIRECT_BIT |
                                   VK_PIPELINE_STAGE_2_COMPUTE_SHADER_BIT,
                               VK_ACCESS_2_SHADER_STORAGE_WRITE_BIT, VK_PIPELINE_STAGE_2_COMPUTE_SHADER_BIT,
                               VK_ACCESS_2_SHADER_STORAGE_READ_BIT | VK_ACCESS_2_SHADER_STORAGE_WRITE_BIT);
        commands.bindCompute(*computePipelineState, layout, slot.sceneSet);
        commands.pushConstants(layout, 0, sizeof(constants), &constants);
        commands.dispatch((capacity + threadExecutionWidth - 1) / threadExecutionWidth);
        // The draws read what compute wrote; the completion handler reads the request record.
        commands.memoryBarrier(VK_PIPELINE_STAGE_2_COMPUTE_SHADER_BIT, VK_ACCESS_2_SHADER_STORAGE_WRITE_BIT,
                               VK_PIPELINE_STAGE_2_DRAW_INDIRECT_BIT | VK_PIPELINE_STAGE_2_VERTEX_SHADER_BIT |
                                   VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT | VK_PIPELINE_STAGE_2_HOST_BIT,
                               VK_ACCESS_2_INDIRECT_COMMAND_READ_BIT | VK_ACCESS_2_SHADER_STORAGE_READ_BIT |
                                   VK_ACCESS_2_HOST_READ_BIT);
    }

    // Scene pass. The depth target is cleared, so its old contents (and layout) do not matter.
    constexpr VkPipelineStageFlags2 kDepthTests =
        VK_PIPELINE_STAGE_2_EARLY_FRAGMENT_TESTS_BIT | VK_PIPELINE_STAGE_2_LATE_FRAGMENT_TESTS_BIT;
    commands.imageBarrier(*depthTexture, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_DEPTH_ATTACHMENT_OPTIMAL,
                          kDepthTests | VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT,
                          VK_ACCESS_2_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT, kDepthTests,
                          VK_ACCESS_2_DEPTH_STENCIL_ATTACHMENT_READ_BIT | VK_ACCESS_2_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT);

    commands.beginRendering(gpu::ColorTarget::cleared(target, kClearColor), gpu::DepthTarget{depthTexture.get(), 1.0f});
    commands.setViewport(target.width(), target.height());
    commands.bindRender(*scenePipelineState, layout, slot.sceneSet);
    commands.setDepthState(false, false, VK_COMPARE_OP_ALWAYS);  // no depth-stencil state set yet
    commands.pushConstants(layout, 0, sizeof(SceneUniforms), &constants.scene);
    if (phase == FramePhase::Intro) {
        const PassParams triangles = passParams(kPassGeneratedTriangles);
        commands.pushConstants(layout, sizeof(SceneUniforms), sizeof(PassParams), &triangles);
        commands.setTopology(VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST);
        commands.drawIndirect(*indirectDrawArgumentBuffer);
    }
    const PassParams quad = passParams(kPassSceneQuad);
    commands.pushConstants(layout, sizeof(SceneUniforms), sizeof(PassParams), &quad);
    commands.setTopology(VK_PRIMITIVE_TOPOLOGY_TRIANGLE_STRIP);
    commands.draw(kQuadVertexCount);
    if (phase == FramePhase::Finale) {
        commands.setDepthState(depthStencilState->depthTest, depthStencilState->depthWrite, depthStencilState->compare);
        const PassParams triangles = passParams(kPassGeneratedTriangles);
        commands.pushConstants(layout, sizeof(SceneUniforms), sizeof(PassParams), &triangles);
        commands.setTopology(VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST);
        commands.drawIndirect(*indirectDrawArgumentBuffer);
    }
    commands.endRendering();

    // Composite pass: a quad over the scene that samples this frame's depth.
    if (phase == FramePhase::Finale) {
        commands.imageBarrier(*depthTexture, VK_IMAGE_LAYOUT_DEPTH_ATTACHMENT_OPTIMAL,
                              VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, kDepthTests,
                              VK_ACCESS_2_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT, VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT,
                              VK_ACCESS_2_SHADER_SAMPLED_READ_BIT);
        commands.memoryBarrier(VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT, VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT,
                               VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                               VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT);

        commands.beginRendering(gpu::ColorTarget::loaded(target), gpu::DepthTarget{});
        commands.setViewport(target.width(), target.height());
        commands.bindRender(*compositePipelineState, layout, slot.compositeSet);
        constants.pass = passParams(kPassCompositeQuad);
        commands.pushConstants(layout, 0, sizeof(constants), &constants);
        commands.setTopology(VK_PRIMITIVE_TOPOLOGY_TRIANGLE_STRIP);
        commands.draw(kQuadVertexCount);
        commands.endRendering();
    }

    // Text over everything, when there is any, at the drawable's own size: a scaled picture is
    // stretched onto the drawable first. Without text the surface presents the picture as it is.
    const bool text = overlay && !overlay->empty();
    if (scaled) {
        finishScaledPicture(commands);
        if (text) gpu::stretchOntoDrawable(commands, *scaledTarget, drawable);
    }
    if (text) overlay->encode(commands, *drawable.texture, slotIndex);

    if (timestamps) timestamps->end(commands.handle(), slotIndex);
    if (scaled && !text) {
        layer->encodePresentScaled(commands, drawable, scaledTarget);
    } else {
        layer->encodePresent(commands, drawable);
    }
    commands.end();

    // Replaced buffers, textures and pipelines stay alive until this frame is back.
    slot.vertexPool = generatedVertexBuffer;
    slot.indirectArguments = indirectDrawArgumentBuffer;
    slot.depth = depthTexture;
    slot.scaledTarget = scaledTarget;
    slot.drawable = drawable.keepAlive;
    slot.scenePipeline = scenePipelineState;
    slot.compositePipeline = compositePipelineState;
    slot.computePipeline = computePipelineState;
    slot.images = imageTextureArray;
    slot.feedback = runsCompute && capacity < renderer_limits::kMaxVertexCapacity;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Completion handlers (completion thread)
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::FrameSlot::frameCompleted(const gpu::CompletionStatus& status) {
    owner->recordGpuTime(*this, status);
    if (feedback) {
        owner->feedbackHandler(status, *request);
    } else {
        owner->plainHandler(status);
    }
}

void Renderer::Impl::plainHandler(const gpu::CompletionStatus& status) {
    if (status.failed) renderLog(RenderLogItem::CommandBufferFailed, status.description);
    framesInFlight.fetch_sub(1);
    inFlightSemaphore.release();
}

void Renderer::Impl::feedbackHandler(const gpu::CompletionStatus& status, gpu::Buffer& request) {
    if (status.failed) renderLog(RenderLogItem::CommandBufferFailed, status.description);
    // Read before the slot is returned: the frame that reuses this record waits for the slot.
    request.invalidate();
    GeometryRequest record;
    std::memcpy(&record, request.data(), sizeof(record));
    if (record.overflowFlag != 0 && record.requestedVertexCount > vertexCapacity.load() && postToMain) {
        std::weak_ptr<Impl*> token = lifeToken;
        const std::uint32_t requested = record.requestedVertexCount;
        postToMain([token, requested] {
            if (auto alive = token.lock()) (*alive)->growGeometryBuffersIfNeeded(requested);
        });
    }
    framesInFlight.fetch_sub(1);
    inFlightSemaphore.release();
}

void Renderer::Impl::recordGpuTime(const FrameSlot& slot, const gpu::CompletionStatus& status) {
    if (status.failed) return;
    std::optional<double> seconds;
    if (timestamps) seconds = timestamps->seconds(slot.index);
    // Without timestamps: from submission to the fence, which the completion thread has just seen.
    if (!seconds) seconds = secondsSince(slot.submitted);
    lastFrameGpuSeconds.store(*seconds);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Depth target
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::ensureDepthTexture(std::uint64_t width, std::uint64_t height) {
    if (depthTexture && depthTexture->width() == width && depthTexture->height() == height) return;
    gpu::TextureDescription description;
    description.format = VK_FORMAT_D32_SFLOAT;
    description.width = static_cast<std::uint32_t>(width);
    description.height = static_cast<std::uint32_t>(height);
    description.usage = VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT;
    // Frames in flight keep the old one.
    depthTexture = requireCreated(kNoDepthTexture, [&] { return gpu::Texture::create(*device, description); });
    ++depthTexturesCreated;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Render scale
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::setRenderScale(float scale) {
    renderScale = std::isnan(scale) ? 1.0f : std::clamp(scale, renderer_limits::kMinRenderScale, 1.0f);
}

void Renderer::Impl::ensureScaledTarget(std::uint32_t width, std::uint32_t height) {
    if (scaledTarget && scaledTarget->width() == width && scaledTarget->height() == height) return;
    gpu::TextureDescription description;
    description.format = layer->colorFormat();
    description.width = width;
    description.height = height;
    description.usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT;
    // Frames in flight keep the old one.
    scaledTarget = requireCreated(kNoScaledTarget, [&] { return gpu::Texture::create(*device, description); });
}

// The passes wrote the scaled picture; the stretch reads it.
void Renderer::Impl::finishScaledPicture(gpu::CommandBuffer& commands) {
    commands.imageBarrier(*scaledTarget, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL,
                          VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT, VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT,
                          VK_PIPELINE_STAGE_2_BLIT_BIT, VK_ACCESS_2_TRANSFER_READ_BIT);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Text overlay
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::setOverlayText(std::string text) {
    // Nothing is made for a show that never shows text.
    if (!overlay && text.empty()) return;
    if (!overlay) overlay = std::make_unique<TextOverlay>(*device, layer->colorFormat(), renderer_limits::kFramesInFlight);
    overlay->setText(text);
}

} // namespace brisvale
