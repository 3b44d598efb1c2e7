#pragma once
// Renderer::Impl: every GPU object of the show and the little state carried between frames.
// The operations live in RendererSetup.cpp (construction), FrameEncoding.cpp (draw, depth
// target, completion handlers), GeometryPool.cpp (vertex pool growth) and ImageArray.cpp.

#include "render/ImageDecode.h"
#include "render/Renderer.h"
#include "render/gpu/Buffer.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Descriptors.h"
#include "render/gpu/Device.h"
#include "render/gpu/Pipeline.h"
#include "render/gpu/Sampler.h"
#include "render/gpu/Surface.h"
#include "render/gpu/Texture.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string>
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
} // namespace renderer_limits

// A file-local check in spirit: a missing platform object becomes a one-line runtime error.
template <typename T> void require(const T& object, const char* message);

// The depth-stencil state of the finale's triangles (Vulkan sets it per draw).
struct DepthStencilState {
    bool depthTest = true;
    bool depthWrite = true;
    VkCompareOp compare = VK_COMPARE_OP_LESS;
};

enum class FramePhase { Intro, Middle, Finale };
FramePhase phaseForTime(float timeSeconds);
std::uint32_t nextPowerOfTwo(std::uint32_t n);

struct Renderer::Impl {
    Impl(void* device, void* layer, std::shared_ptr<const DemoArchive> archive, DemoManifest manifest,
         MainThreadPoster postToMain);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void resize(SurfaceSize size) { surfaceSize = size; }
    void draw(const FrameInfo& frame);
    // draw's steps: record the frame into its slot's command buffer, submit it, or hand the
    // drawable and the slot back when either fails.
    void encode(const FrameInfo& frame, std::uint32_t slotIndex, gpu::CommandBuffer& commands);
    VkResult submit(gpu::CommandBuffer& commands);
    void abandonFrame();
    gpu::RenderPipelineDescription pipelineDescriptorWithVertex(const std::vector<std::uint32_t>& vertexFunction,
                                                                const std::vector<std::uint32_t>& fragmentFunction) const;
    void ensureDepthTexture(std::uint64_t width, std::uint64_t height);
    void recreateGeometryBuffers(std::uint32_t capacity);
    void growGeometryBuffersIfNeeded(std::uint32_t requestedVertexCount);
    void loadTextureArray();
    void loadTextureSlice(const std::string& path, std::uint32_t slice, std::uint64_t size);

    // One in-flight slot: what a frame keeps alive until it completes, its descriptor sets and
    // its completion handler (run on the completion thread).
    struct FrameSlot final : gpu::CompletionHandler {
        Impl* owner = nullptr;
        VkDescriptorSet sceneSet = VK_NULL_HANDLE;      // binding 4 = the depth placeholder
        VkDescriptorSet compositeSet = VK_NULL_HANDLE;  // binding 4 = this frame's depth
        std::shared_ptr<gpu::Buffer> request;
        std::shared_ptr<gpu::Buffer> vertexPool;
        std::shared_ptr<gpu::Buffer> indirectArguments;
        std::shared_ptr<gpu::Texture> depth;
        std::shared_ptr<const void> drawable;
        bool feedback = false;                           // feedback handler rather than the plain one
        void frameCompleted(const gpu::CompletionStatus& status) override;
    };
    void plainHandler(const gpu::CompletionStatus& status);
    void feedbackHandler(const gpu::CompletionStatus& status, gpu::Buffer& request);

    // ---- members in the documented order (released in reverse) ----
    gpu::Device* device = nullptr;
    gpu::Surface* layer = nullptr;
    std::unique_ptr<gpu::CommandQueue> commandQueue;
    std::unique_ptr<gpu::PipelineLayout> pipelineLayout;       // shared by all three functions
    std::unique_ptr<gpu::RenderPipeline> scenePipelineState;
    std::unique_ptr<gpu::RenderPipeline> compositePipelineState;  // same functions, no depth attachment
    std::unique_ptr<gpu::ComputePipeline> computePipelineState;
    std::uint32_t threadExecutionWidth = 1;                    // the compute function's local_size_x
    std::optional<DepthStencilState> depthStencilState;
    std::shared_ptr<const DemoArchive> archive;
    DemoManifest manifest;
    std::shared_ptr<gpu::Texture> depthTexture;
    std::shared_ptr<gpu::Buffer> generatedVertexBuffer;
    std::shared_ptr<gpu::Buffer> indirectDrawArgumentBuffer;
    std::unique_ptr<gpu::Texture> imageTextureArray;
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

} // namespace brisvale
