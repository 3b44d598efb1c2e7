// Renderer construction: the checks and GPU objects in their fixed order (each failure ends the
// construction with its own message), built from the same steps that prepare and install a new
// set of shaders while the show plays; the pipeline description, the pipeline cache, and
// teardown.
//
// [SECTION] Messages
// [SECTION] Constructor
// [SECTION] Per-frame resources
// [SECTION] Shaders: compile, pipelines, installation
// [SECTION] Pipeline description
// [SECTION] Pipeline cache
// [SECTION] Teardown

#include "render/RendererImpl.h"

#include "content/ShaderSource.h"
#include "render/PipelineCacheFile.h"
#include "render/RenderLog.h"
#include "render/ShaderCompiler.h"
#include "render/ShaderInterface.h"
#include "render/gpu/Recording.h"

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
constexpr const char* kForeignShaders = "Not shaders prepared by this renderer";

// Sets the flag when construction ends, however it ends.
struct CancelOnExit {
    std::atomic<bool>& flag;
    ~CancelOnExit() { flag.store(true); }
};

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Constructor
// ---------------------------------------------------------------------------------------------

Renderer::Impl::Impl(gpu::Device* deviceArgument, gpu::Surface* layerArgument,
                     std::shared_ptr<const DemoArchive> archiveArgument, DemoManifest manifestArgument,
                     MainThreadPoster poster, std::optional<std::filesystem::path> cacheDirectory)
    : device(deviceArgument),
      layer(layerArgument),
      archive(std::move(archiveArgument)),
      manifest(std::move(manifestArgument)),
      postToMain(std::move(poster)),
      lifeToken(std::make_shared<Impl*>(this)),
      pipelineCacheDirectory(std::move(cacheDirectory)) {
    const auto started = Clock::now();
    require(device, kNoDevice);
    require(layer, kNoLayer);
    if (!archive) throw std::runtime_error(kNoArchive);

    commandQueue =
        requireCreated(kNoQueue, [&] { return gpu::CommandQueue::create(*device, renderer_limits::kFramesInFlight); });
    openPipelineCache();

    // The images are read from the archive first, then decode and upload beside the shaders
    // (which read the archive only before that); their errors still come last, and a failure
    // before them stops their decoding and discards what they found.
    auto step = Clock::now();
    std::exception_ptr imagesUnreadable;
    ImageSources imageSources;
    try {
        imageSources = readImages(*archive, manifest.assetManifestPath);
    } catch (...) {
        imagesUnreadable = std::current_exception();
    }
    std::atomic<bool> imagesCancelled{false};
    std::future<std::shared_ptr<Renderer::PreparedImages>> images;
    const CancelOnExit cancelImages{imagesCancelled};  // raised before `images` waits for the thread
    if (!imagesUnreadable) {
        images = startAside([this, &imageSources, &imagesCancelled, step] {
            auto prepared = uploadImages(imageSources, &imagesCancelled);
            startupTimes.imageSeconds = secondsSince(step);
            return prepared;
        });
    }

    step = Clock::now();
    const CompiledShaders shaders = compileShaders(*archive, manifest.shaderPath);
    startupTimes.compileSeconds = secondsSince(step);

    using namespace shader_interface;
    pipelineLayout = requireCreatedWithReason(kScenePipelineFailed, [&] {
        return gpu::PipelineLayout::create(*device,
                                           {{kVertexPoolBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                            {kIndirectArgumentsBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                            {kGeometryRequestBinding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER},
                                            {kImageArrayBinding, VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER},
                                            {kSceneDepthBinding, VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER}},
                                           kPushConstantSize);
    });

    step = Clock::now();
    installShaders(buildPipelines(shaders));
    startupTimes.pipelineSeconds = secondsSince(step);

    depthStencilState = DepthStencilState{true, true, VK_COMPARE_OP_LESS};
    require(depthStencilState, kNoDepthStencilState);

    recreateGeometryBuffers(renderer_limits::kInitialVertexCapacity);

    for (auto& buffer : geometryRequestBuffers) {
        buffer = requireCreated(kNoRequestBuffer, [&] {
            return gpu::Buffer::create(*device, sizeof(GeometryRequest), VK_BUFFER_USAGE_STORAGE_BUFFER_BIT,
                                       gpu::BufferMemory::HostReadback);
        });
    }

    if (imagesUnreadable) std::rethrow_exception(imagesUnreadable);
    installImages(images.get());

    requireCreatedWithReason(kNoFrameResources, [&] { makeFrameResources(); });
    // Without timestamps (the queue has none, or no query pool can be had) the GPU time is taken
    // from the fences.
    try {
        timestamps = gpu::TimestampQueries::create(*device, renderer_limits::kFramesInFlight);
    } catch (const gpu::Error&) {
    }
    startupTimes.totalSeconds = secondsSince(started);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Per-frame resources
// ---------------------------------------------------------------------------------------------

// Samplers, the depth placeholder (depth 1.0 for passes without scene depth) and each slot's
// descriptor sets.
void Renderer::Impl::makeFrameResources() {
    imageSampler = gpu::Sampler::create(*device, VK_FILTER_LINEAR);
    depthSampler = gpu::Sampler::create(*device, VK_FILTER_NEAREST);

    gpu::TextureDescription placeholder;
    placeholder.format = VK_FORMAT_D32_SFLOAT;
    placeholder.usage = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    depthPlaceholder = gpu::Texture::create(*device, placeholder);
    device->runNow([&](VkCommandBuffer commands) {
        gpu::imageBarrier(commands, *depthPlaceholder, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_PIPELINE_STAGE_2_NONE, VK_ACCESS_2_NONE, VK_PIPELINE_STAGE_2_CLEAR_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT);
        const VkClearDepthStencilValue one{1.0f, 0};
        const VkImageSubresourceRange range{VK_IMAGE_ASPECT_DEPTH_BIT, 0, 1, 0, 1};
        vkCmdClearDepthStencilImage(commands, depthPlaceholder->image(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &one, 1,
                                    &range);
        gpu::imageBarrier(commands, *depthPlaceholder, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, VK_PIPELINE_STAGE_2_CLEAR_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT,
                          VK_ACCESS_2_SHADER_SAMPLED_READ_BIT);
    });

    descriptorPool = gpu::DescriptorPool::create(*device, *pipelineLayout, 2 * renderer_limits::kFramesInFlight);
    for (std::uint32_t i = 0; i < slots.size(); ++i) {
        FrameSlot& slot = slots[i];
        slot.owner = this;
        slot.index = i;
        slot.sceneSet = descriptorPool->allocate();
        slot.compositeSet = descriptorPool->allocate();
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Shaders: compile, pipelines, installation
// ---------------------------------------------------------------------------------------------

CompiledShaders Renderer::Impl::compileShaders(const DemoArchive& source, std::string_view shaderPath) const {
    // Through the line map: compiler messages name the show's own file and line.
    return compileSceneShaders(expandShaderSource(source, shaderPath));  // compile and missing-function messages
}

std::shared_ptr<Renderer::PreparedShaders> Renderer::Impl::buildPipelines(const CompiledShaders& shaders) const {
    auto prepared = std::make_shared<Renderer::PreparedShaders>();
    prepared->owner = this;
    prepared->threadExecutionWidth = shaders.computeLocalSizeX == 0 ? 1 : shaders.computeLocalSizeX;

    // The three pipelines are independent: on threads of their own (where threads can be had),
    // their errors reported in the order scene, composite, compute.
    gpu::RenderPipelineDescription scene = pipelineDescriptorWithVertex(shaders.vertex, shaders.fragment);
    scene.depthFormat = VK_FORMAT_D32_SFLOAT;
    // The composite pass has no depth attachment; Vulkan wants a pipeline that says so.
    const gpu::RenderPipelineDescription composite = pipelineDescriptorWithVertex(shaders.vertex, shaders.fragment);
    auto scenePipeline = startAside([&] {
        return requireCreatedWithReason(kScenePipelineFailed,
                                        [&] { return gpu::RenderPipeline::create(*device, scene); });
    });
    auto compositePipeline = startAside([&] {
        return requireCreatedWithReason(kScenePipelineFailed,
                                        [&] { return gpu::RenderPipeline::create(*device, composite); });
    });
    std::exception_ptr computeFailed;
    try {
        prepared->compute = requireCreatedWithReason(kComputePipelineFailed, [&] {
            return gpu::ComputePipeline::create(*device, *pipelineLayout, shaders.compute, pipelineCache.get());
        });
    } catch (const std::runtime_error&) {
        computeFailed = std::current_exception();
    }
    prepared->scene = scenePipeline.get();
    prepared->composite = compositePipeline.get();
    if (computeFailed) std::rethrow_exception(computeFailed);
    return prepared;
}

void Renderer::Impl::installShaders(std::shared_ptr<Renderer::PreparedShaders> shaders) {
    if (!shaders || shaders->owner != this) throw std::invalid_argument(kForeignShaders);
    scenePipelineState = shaders->scene;
    compositePipelineState = shaders->composite;
    computePipelineState = shaders->compute;
    threadExecutionWidth = shaders->threadExecutionWidth;
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
    description.cache = pipelineCache.get();
    return description;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Pipeline cache
// ---------------------------------------------------------------------------------------------

void Renderer::Impl::openPipelineCache() {
    if (!pipelineCacheDirectory) return;
    PipelineCacheLoad saved = loadPipelineCache(*pipelineCacheDirectory, *device);
    if (!saved.problem.empty()) {
        renderLog(RenderLogItem::PipelineCacheIgnored, saved.path.c_str(), saved.problem.c_str());
    }
    // A cache the driver cannot make costs only time: pipelines are then made without one.
    try {
        pipelineCache = gpu::PipelineCache::create(*device, saved.bytes);
    } catch (const gpu::Error&) {
        return;
    }
    if (pipelineCache->startedFromSaved()) pipelineCacheAtStart = std::move(saved.bytes);
}

void Renderer::Impl::savePipelineCache() noexcept {
    if (!pipelineCacheDirectory || !pipelineCache) return;
    try {
        const std::vector<std::uint8_t> bytes = pipelineCache->data(kMaxPipelineCacheBytes);
        if (bytes.empty() || bytes == pipelineCacheAtStart) return;
        savePipelineCacheFile(*pipelineCacheDirectory, *device, bytes);
    } catch (const std::exception& error) {
        renderLog(RenderLogItem::PipelineCacheNotSaved, error.what());
    }
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
        savePipelineCache();
    }
}

} // namespace brisvale
