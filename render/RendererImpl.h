#pragma once
// Renderer::Impl: every GPU object of the show and the little state carried between frames.
// The operations live in RendererSetup.cpp (construction, shader preparation and installation,
// teardown), FrameEncoding.cpp (draw, depth target, completion handlers), GeometryPool.cpp
// (vertex pool growth) and ImageArray.cpp (image preparation and installation); the text over
// the picture in TextOverlay.cpp.

#include "render/ImageDecode.h"
#include "render/Renderer.h"
#include "render/ShaderCompiler.h"
#include "render/TextOverlay.h"
#include "render/gpu/Buffer.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Descriptors.h"
#include "render/gpu/Device.h"
#include "render/gpu/Pipeline.h"
#include "render/gpu/PipelineCache.h"
#include "render/gpu/Sampler.h"
#include "render/gpu/Surface.h"
#include "render/gpu/Texture.h"
#include "render/gpu/Timestamps.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace brisvale {

namespace renderer_limits {
inline constexpr std::uint32_t kFramesInFlight = 3;
inline constexpr std::uint32_t kInitialVertexCapacity = 4096;
inline constexpr std::uint32_t kMaxVertexCapacity = 262144;
inline constexpr std::uint32_t kImageEdge = kImageLayerEdge;
inline constexpr std::uint64_t kImageDecodeBudgetPixels = brisvale::kImageDecodeBudgetPixels;
inline constexpr float kIntroEndSeconds = 9.25f;
inline constexpr float kFinaleStartSeconds = 142.0f;
inline constexpr float kMinRenderScale = 0.25f;
} // namespace renderer_limits

// A file-local check in spirit: a missing platform object becomes a one-line runtime error.
template <typename T> void require(const T& object, const char* message);

// What `create` makes of the GPU layer; its failure (gpu::Error) becomes the renderer's own
// one-line error: `message` alone, or with the GPU layer's line after ": " where the message
// carries a description.
template <typename Create> auto requireCreated(const char* message, Create create) -> decltype(create());
template <typename Create> auto requireCreatedWithReason(const char* message, Create create) -> decltype(create());

// The depth-stencil state of the finale's triangles (Vulkan sets it per draw).
struct DepthStencilState {
    bool depthTest = true;
    bool depthWrite = true;
    VkCompareOp compare = VK_COMPARE_OP_LESS;
};

// What prepareShaders and prepareImages hand over: made by one renderer, for that renderer.
struct Renderer::PreparedShaders {
    const Renderer::Impl* owner = nullptr;
    std::shared_ptr<gpu::RenderPipeline> scene;
    std::shared_ptr<gpu::RenderPipeline> composite;  // same functions, no depth attachment
    std::shared_ptr<gpu::ComputePipeline> compute;
    std::uint32_t threadExecutionWidth = 1;          // the compute function's local_size_x
};

struct Renderer::PreparedImages {
    const Renderer::Impl* owner = nullptr;
    std::shared_ptr<gpu::Texture> array;  // in SHADER_READ_ONLY_OPTIMAL, every layer uploaded
    std::uint32_t count = 0;
};

// Where construction spent its time (benchmarks and diagnostics). Images are prepared beside the
// shaders, so the parts may add up to more than the whole.
struct StartupTimes {
    double compileSeconds = 0;    // expansion and the three stages
    double pipelineSeconds = 0;   // the three pipelines
    double imageSeconds = 0;      // decoding and uploading the image array
    double totalSeconds = 0;      // the whole construction
};

enum class FramePhase { Intro, Middle, Finale };
FramePhase phaseForTime(float timeSeconds);
std::uint32_t nextPowerOfTwo(std::uint32_t n);

struct Renderer::Impl {
    Impl(gpu::Device* device, gpu::Surface* layer, std::shared_ptr<const DemoArchive> archive, DemoManifest manifest,
         MainThreadPoster postToMain, std::optional<std::filesystem::path> pipelineCacheDirectory);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void resize(SurfaceSize size) { surfaceSize = size; }
    void setRenderScale(float scale);
    void draw(const FrameInfo& frame);
    // draw's steps: record the frame into its slot's command buffer, submit it, or hand the
    // drawable and the slot back when either fails.
    void encode(const FrameInfo& frame, std::uint32_t slotIndex, gpu::CommandBuffer& commands);
    VkResult submit(gpu::CommandBuffer& commands);
    void abandonFrame();
    gpu::RenderPipelineDescription pipelineDescriptorWithVertex(const std::vector<std::uint32_t>& vertexFunction,
                                                                const std::vector<std::uint32_t>& fragmentFunction) const;
    void ensureDepthTexture(std::uint64_t width, std::uint64_t height);
    // Below scale 1: the colour target the passes render into, at the scaled size, and its
    // hand-over to the stretch over the drawable.
    void ensureScaledTarget(std::uint32_t width, std::uint32_t height);
    void finishScaledPicture(gpu::CommandBuffer& commands);
    void recreateGeometryBuffers(std::uint32_t capacity);
    void growGeometryBuffersIfNeeded(std::uint32_t requestedVertexCount);

    // Shaders: construction and prepareShaders share these steps. The const ones run on any
    // thread: they read only what construction fixed (device, layer format, pipeline layout,
    // pipeline cache).
    CompiledShaders compileShaders(const DemoArchive& source, std::string_view shaderPath) const;
    std::shared_ptr<Renderer::PreparedShaders> buildPipelines(const CompiledShaders& shaders) const;
    std::shared_ptr<Renderer::PreparedShaders> prepareShaders(const DemoArchive& source,
                                                              std::string_view shaderPath) const {
        return buildPipelines(compileShaders(source, shaderPath));
    }
    void installShaders(std::shared_ptr<Renderer::PreparedShaders> shaders);

    // Images: the same for the image array, in two steps. readImages reads everything it needs
    // from the archive (paths, limits, the files' bytes) and makes the array; uploadImages decodes
    // and uploads without touching the archive again, so that it can run beside other work on the
    // same archive (an archive allows one caller at a time). `cancelled` (may be null) stops the
    // decoding early when construction has failed elsewhere.
    struct ImageSources {
        std::vector<std::string> paths;
        std::vector<ArchiveBytes> bytes;                 // valid while the archive lives
        std::vector<std::exception_ptr> openFailures;    // reported when the layer's turn comes
        std::shared_ptr<gpu::Texture> array;
    };
    ImageSources readImages(const DemoArchive& source, std::string_view assetManifestPath) const;
    std::shared_ptr<Renderer::PreparedImages> uploadImages(const ImageSources& sources,
                                                           const std::atomic<bool>* cancelled) const;
    std::shared_ptr<Renderer::PreparedImages> prepareImages(const DemoArchive& source,
                                                            std::string_view assetManifestPath) const;
    void installImages(std::shared_ptr<Renderer::PreparedImages> images);
    void loadTextureArray();
    void loadTextureSlice(ArchiveBytes bytes, const std::string& path, const gpu::Texture& array, std::uint32_t slice,
                          std::uint64_t size) const;

    void makeFrameResources();
    void setOverlayText(std::string text);
    void openPipelineCache();
    void savePipelineCache() noexcept;

    // One in-flight slot: what a frame keeps alive until it completes, its descriptor sets and
    // its completion handler (run on the completion thread).
    struct FrameSlot final : gpu::CompletionHandler {
        Impl* owner = nullptr;
        std::uint32_t index = 0;
        VkDescriptorSet sceneSet = VK_NULL_HANDLE;      // binding 4 = the depth placeholder
        VkDescriptorSet compositeSet = VK_NULL_HANDLE;  // binding 4 = this frame's depth
        std::shared_ptr<gpu::Buffer> request;
        std::shared_ptr<gpu::Buffer> vertexPool;
        std::shared_ptr<gpu::Buffer> indirectArguments;
        std::shared_ptr<gpu::Texture> depth;
        std::shared_ptr<gpu::Texture> scaledTarget;
        std::shared_ptr<const void> drawable;
        std::shared_ptr<gpu::RenderPipeline> scenePipeline;
        std::shared_ptr<gpu::RenderPipeline> compositePipeline;
        std::shared_ptr<gpu::ComputePipeline> computePipeline;
        std::shared_ptr<gpu::Texture> images;
        std::chrono::steady_clock::time_point submitted;  // for the GPU time without timestamps
        bool feedback = false;                           // feedback handler rather than the plain one
        void frameCompleted(const gpu::CompletionStatus& status) override;
    };
    void plainHandler(const gpu::CompletionStatus& status);
    void feedbackHandler(const gpu::CompletionStatus& status, gpu::Buffer& request);
    void recordGpuTime(const FrameSlot& slot, const gpu::CompletionStatus& status);

    // ---- members in the documented order (released in reverse) ----
    gpu::Device* device = nullptr;
    gpu::Surface* layer = nullptr;
    std::unique_ptr<gpu::CommandQueue> commandQueue;
    std::unique_ptr<gpu::PipelineLayout> pipelineLayout;       // shared by all three functions
    // Replaced together by installShaders; frames in flight hold the ones they drew with.
    std::shared_ptr<gpu::RenderPipeline> scenePipelineState;
    std::shared_ptr<gpu::RenderPipeline> compositePipelineState;  // same functions, no depth attachment
    std::shared_ptr<gpu::ComputePipeline> computePipelineState;
    std::uint32_t threadExecutionWidth = 1;                    // the compute function's local_size_x
    std::optional<DepthStencilState> depthStencilState;
    std::shared_ptr<const DemoArchive> archive;
    DemoManifest manifest;
    std::shared_ptr<gpu::Texture> depthTexture;
    std::shared_ptr<gpu::Buffer> generatedVertexBuffer;
    std::shared_ptr<gpu::Buffer> indirectDrawArgumentBuffer;
    std::shared_ptr<gpu::Texture> imageTextureArray;  // replaced by installImages, as the pipelines
    std::uint32_t imageCount = 0;
    std::array<std::shared_ptr<gpu::Buffer>, renderer_limits::kFramesInFlight> geometryRequestBuffers;
    // Counts free in-flight slots: draw takes one, the frame's completion handler (completion
    // thread) gives it back. It is the only synchronisation between the two threads.
    std::counting_semaphore<renderer_limits::kFramesInFlight> inFlightSemaphore{renderer_limits::kFramesInFlight};
    std::uint32_t requestBufferIndex = 0;
    // Written on the main thread only; the completion thread reads it (possibly stale).
    std::atomic<std::uint32_t> vertexCapacity{renderer_limits::kInitialVertexCapacity};
    SurfaceSize surfaceSize;

    // ---- beyond the documented members ----
    MainThreadPoster postToMain;
    // Posted growth tasks hold a weak reference: a task that runs after the renderer is gone
    // does nothing. Touched on the main thread (copied from the completion thread).
    std::shared_ptr<Impl*> lifeToken;
    std::unique_ptr<gpu::Sampler> imageSampler;   // linear, clamp
    std::unique_ptr<gpu::Sampler> depthSampler;   // nearest, clamp
    std::unique_ptr<gpu::Texture> depthPlaceholder;  // 1 × 1, depth 1.0, for passes without scene depth
    std::unique_ptr<gpu::DescriptorPool> descriptorPool;
    std::array<FrameSlot, renderer_limits::kFramesInFlight> slots;
    gpu::Drawable drawable;  // reused every frame
    // Compiled pipelines kept between runs; only with a cache directory. What was read at start
    // is kept to leave an unchanged file alone.
    std::optional<std::filesystem::path> pipelineCacheDirectory;
    std::unique_ptr<gpu::PipelineCache> pipelineCache;
    std::vector<std::uint8_t> pipelineCacheAtStart;
    // One pair of timestamps per slot; null where the queue has none. The completion thread
    // stores each frame's GPU time, any thread reads it.
    std::unique_ptr<gpu::TimestampQueries> timestamps;
    std::atomic<double> lastFrameGpuSeconds{0.0};
    // Made on the first non-empty text, so that a show without it never pays for it.
    std::unique_ptr<TextOverlay> overlay;
    // The fraction of the drawable the scene renders at (main thread). Below 1 the passes draw
    // into scaledTarget, which follows the drawable's size times the scale as the depth target
    // does; at 1 there is none.
    float renderScale = 1.0f;
    std::shared_ptr<gpu::Texture> scaledTarget;
    StartupTimes startupTimes;
    // Bookkeeping for tests and diagnostics: frames between the slot wait and their handler
    // (the most seen at once), and how many depth targets were made.
    std::atomic<std::uint32_t> framesInFlight{0};
    std::atomic<std::uint32_t> mostFramesInFlight{0};
    std::uint32_t depthTexturesCreated = 0;
    // Test seam, set through RendererTesting and never by the show: the next `frames` frames fail
    // where they would be submitted, returning `result` as a failed vkQueueSubmit does or, with
    // `raises`, throwing as encoding can. Main thread only.
    struct InjectedFailures {
        std::uint32_t frames = 0;
        VkResult result = VK_ERROR_DEVICE_LOST;
        bool raises = false;
    } injectedFailures;
};

template <typename T> void require(const T& object, const char* message) {
    if (!object) throw std::runtime_error(message);
}

// `message`, then ": " and the description when there is one.
inline std::string withDescription(const char* message, const std::string& description) {
    return description.empty() ? std::string(message) : std::string(message) + ": " + description;
}

template <typename Create> auto requireCreated(const char* message, Create create) -> decltype(create()) {
    try {
        return create();
    } catch (const gpu::Error&) {
        throw std::runtime_error(message);
    }
}

template <typename Create> auto requireCreatedWithReason(const char* message, Create create) -> decltype(create()) {
    try {
        return create();
    } catch (const gpu::Error& error) {
        throw std::runtime_error(withDescription(message, error.what()));
    }
}

// Runs a task on a thread of its own; where no thread can be started, when its result is asked
// for. The result (or the task's exception) comes through the future, whose destructor waits.
template <typename Task> auto startAside(Task task) -> std::future<decltype(task())> {
    try {
        return std::async(std::launch::async, task);
    } catch (const std::system_error&) {
        return std::async(std::launch::deferred, task);
    }
}

using Clock = std::chrono::steady_clock;
inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace brisvale
