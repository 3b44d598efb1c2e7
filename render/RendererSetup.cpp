// Renderer construction: the checks and GPU objects in their fixed order (each failure ends the
// construction with its own message), the pipeline description, and teardown.
//
// [SECTION] Messages
// [SECTION] Constructor
// [SECTION] Pipeline description
// [SECTION] Per-frame resources
// [SECTION] Teardown

#include "render/RendererImpl.h"

#include "content/ShaderSource.h"
#include "render/ShaderCompiler.h"
#include "render/ShaderInterface.h"

namespace brisvale {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Messages
// ---------------------------------------------------------------------------------------------
constexpr const char* kNoDevice = "Metal device is not available";
constexpr const char* kNoLayer = "Metal layer is not available";
constexpr const char* kNoArchive = "Demo archive is not available";
constexpr const char* kNoQueue = "Failed to create Metal command queue";
constexpr const char* kScenePipelineFailed = "Failed to create scene render pipeline";
constexpr const char* kComputePipelineFailed = "Failed to create compute pipeline";
constexpr const char* kNoDepthStencilState = "Failed to create depth stencil state";
constexpr const char* kNoRequestBuffer = "Failed to create geometry request buffer";
constexpr const char* kNoFrameResources = "Failed to create frame resources";

std::string withDescription(const char* message, const std::string& description) {
    return description.empty() ? std::string(message) : std::string(message) + ": " + description;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Constructor
// ---------------------------------------------------------------------------------------------

Renderer::Impl::Impl(void* deviceArgument, void* layerArgument, std::shared_ptr<const DemoArchive> archiveArgument,
                     DemoManifest manifestArgument, MainThreadPoster poster)
    : device(static_cast<gpu::Device*>(deviceArgument)),
      layer(static_cast<gpu::Surface*>(layerArgument)),
      archive(std::move(archiveArgument)),
      manifest(std::move(manifestArgument)),
      postToMain(std::move(poster)),
      lifeToken(std::make_shared<Impl*>(this)) {
    require(device, kNoDevice);
    require(layer, kNoLayer);
    if (!archive) throw std::runtime_error(kNoArchive);

    commandQueue = gpu::CommandQueue::create(*device, renderer_limits::kFramesInFlight);
    require(commandQueue, kNoQueue);

    const ExpandedShaderSource source = expandShaderSource(*archive, manifest.shaderPath);
    const CompiledShaders shaders = compileSceneShaders(source);  // compile and missing-function messages

    using namespace shader_interface;
    pipelineLayout = gpu::PipelineLayout::create(*device,
                                                 {{kVertexPoolBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                                  {kIndirectArgumentsBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                                  {kGeometryRequestBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                                  {kImageArrayBinding, VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER},
                                                  {kSceneDepthBinding, VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER}},
                                                 kPushConstantSize);
    if (!pipelineLayout) throw std::runtime_error(withDescription(kScenePipelineFailed, "pipeline layout"));

    std::string error;
    gpu::RenderPipelineDescription scene = pipelineDescriptorWithVertex(shaders.vertex, shaders.fragment);
    scene.depthFormat = VK_FORMAT_D32_SFLOAT;
    scenePipelineState = gpu::RenderPipeline::create(*device, scene, &error);
    if (!scenePipelineState) throw std::runtime_error(withDescription(kScenePipelineFailed, error));
    // The composite pass has no depth attachment; Vulkan wants a pipeline that says so.
    const gpu::RenderPipelineDescription composite = pipelineDescriptorWithVertex(shaders.vertex, shaders.fragment);
    compositePipelineState = gpu::RenderPipeline::create(*device, composite, &error);
    if (!compositePipelineState) throw std::runtime_error(withDescription(kScenePipelineFailed, error));

    computePipelineState = gpu::ComputePipeline::create(*device, *pipelineLayout, shaders.compute, &error);
    if (!computePipelineState) throw std::runtime_error(withDescription(kComputePipelineFailed, error));
    threadExecutionWidth = shaders.computeLocalSizeX == 0 ? 1 : shaders.computeLocalSizeX;

    depthStencilState = DepthStencilState{true, true, VK_COMPARE_OP_LESS};
    require(depthStencilState, kNoDepthStencilState);

    recreateGeometryBuffers(renderer_limits::kInitialVertexCapacity);

    for (auto& buffer : geometryRequestBuffers) {
        buffer = gpu::Buffer::create(*device, sizeof(GeometryRequest), VK_BUFFER_USAGE_STORAGE_BUFFER_BIT,
                                     gpu::BufferMemory::HostReadback);
        require(buffer, kNoRequestBuffer);
    }

    loadTextureArray();

    // -----------------------------------------------------------------------------------------
    // [SECTION] Per-frame resources
    // -----------------------------------------------------------------------------------------
    imageSampler = gpu::Sampler::create(*device, VK_FILTER_LINEAR);
    depthSampler = gpu::Sampler::create(*device, VK_FILTER_NEAREST);
    require(imageSampler, kNoFrameResources);
    require(depthSampler, kNoFrameResources);

    gpu::TextureDescription placeholder;
    placeholder.format = VK_FORMAT_D32_SFLOAT;
    placeholder.usage = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    depthPlaceholder = gpu::Texture::create(*device, placeholder);
    require(depthPlaceholder, kNoFrameResources);
    device->runNow([&](VkCommandBuffer commands) {
        gpu::ImageTransition toClear;
        toClear.dstStage = VK_PIPELINE_STAGE_2_CLEAR_BIT;
        toClear.dstAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
        toClear.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        gpu::transitionTexture(commands, *depthPlaceholder, toClear);
        const VkClearDepthStencilValue one{1.0f, 0};
        const VkImageSubresourceRange range{VK_IMAGE_ASPECT_DEPTH_BIT, 0, 1, 0, 1};
        vkCmdClearDepthStencilImage(commands, depthPlaceholder->image(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &one, 1,
                                    &range);
        gpu::ImageTransition toRead;
        toRead.srcStage = VK_PIPELINE_STAGE_2_CLEAR_BIT;
        toRead.srcAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
        toRead.dstStage = VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT;
        toRead.dstAccess = VK_ACCESS_2_SHADER_SAMPLED_READ_BIT;
        toRead.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        toRead.newLayout = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
        gpu::transitionTexture(commands, *depthPlaceholder, toRead);
    });

    descriptorPool = gpu::DescriptorPool::create(*device, *pipelineLayout, 2 * renderer_limits::kFramesInFlight);
    require(descriptorPool, kNoFrameResources);
    for (auto& slot : slots) {
        slot.owner = this;
        slot.sceneSet = descriptorPool->allocate();
        slot.compositeSet = descriptorPool->allocate();
        require(slot.sceneSet, kNoFrameResources);
        require(slot.compositeSet, kNoFrameResources);
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Pipeline description
// ---------------------------------------------------------------------------------------------

gpu::RenderPipelineDescription Renderer::Impl::pipelineDescriptorWithVertex(
    const std::vector<std::uint32_t>& vertexFunction, const std::vector<std::uint32_t>& fragmentFunction) const {
    gpu::RenderPipelineDescription description;
    description.layout = pipelineLayout.get();
    description.vertex = &vertexFunction;
    description.fragment = &fragmentFunction;
    description.colorFormat = layer->colorFormat();
    // colour = src.rgb * src.a + dst.rgb * (1 - src.a); alpha = src.a + dst.a * (1 - src.a)
    description.blend.enabled = true;
    description.blend.colorOp = VK_BLEND_OP_ADD;
    description.blend.alphaOp = VK_BLEND_OP_ADD;
    description.blend.srcColor = VK_BLEND_FACTOR_SRC_ALPHA;
    description.blend.srcAlpha = VK_BLEND_FACTOR_ONE;
    description.blend.dstColor = VK_BLEND_FACTOR_ONE_MINUS_SRC_ALPHA;
    description.blend.dstAlpha = VK_BLEND_FACTOR_ONE_MINUS_SRC_ALPHA;
    description.depthFormat = VK_FORMAT_UNDEFINED;  // set by the caller
    return description;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Teardown
// ---------------------------------------------------------------------------------------------

Renderer::Impl::~Impl() {
    // Every frame in flight refers to this object: wait until all slots are back, then until
    // the completion thread has left the last handler.
    if (device != nullptr && commandQueue) {
        for (std::uint32_t i = 0; i < renderer_limits::kFramesInFlight; ++i) inFlightSemaphore.acquire();
        device->completions().drain();
        device->waitIdle();  // one-shot work and presentation as well
    }
}

} // namespace brisvale
