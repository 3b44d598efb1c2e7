// The GPU vertex pool and its indirect draw arguments: made at start-up, grown by powers of two
// (up to a cap) when a frame's compute function reports that its geometry did not fit.

#include "render/RendererImpl.h"

#include "render/RenderLog.h"
#include "render/ShaderInterface.h"

namespace brisvale {
namespace {

constexpr const char* kNoVertexBuffer = "Failed to create generated vertex buffer";
constexpr const char* kNoIndirectBuffer = "Failed to create indirect draw argument buffer";

} // namespace

std::uint32_t nextPowerOfTwo(std::uint32_t n) {
    if (n <= 1) return 1;
    std::uint32_t m = n - 1;
    m |= m >> 1;
    m |= m >> 2;
    m |= m >> 4;
    m |= m >> 8;
    m |= m >> 16;
    return m + 1;  // wraps to 0 above 2^31
}

void Renderer::Impl::recreateGeometryBuffers(std::uint32_t capacity) {
    // Build both first: a failed growth keeps the previous pool and capacity intact.
    const std::uint64_t bytes = std::uint64_t(capacity) * shader_interface::kVertexStrideBytes;
    std::shared_ptr<gpu::Buffer> pool = requireCreated(kNoVertexBuffer, [&] {
        return gpu::Buffer::create(*device, bytes, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, gpu::BufferMemory::GpuPrivate);
    });
    std::shared_ptr<gpu::Buffer> arguments = requireCreated(kNoIndirectBuffer, [&] {
        return gpu::Buffer::create(*device, sizeof(DrawIndirectArguments),
                                   VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_INDIRECT_BUFFER_BIT,
                                   gpu::BufferMemory::GpuPrivate);
    });
    // Frames in flight hold the old buffers until they complete.
    vertexCapacity.store(capacity);
    generatedVertexBuffer = std::move(pool);
    indirectDrawArgumentBuffer = std::move(arguments);
}

void Renderer::Impl::growGeometryBuffersIfNeeded(std::uint32_t requestedVertexCount) {
    if (requestedVertexCount <= vertexCapacity.load()) return;  // repeats of a shortage end here
    std::uint32_t capacity = nextPowerOfTwo(requestedVertexCount);
    if (capacity == 0 || capacity > renderer_limits::kMaxVertexCapacity) capacity = renderer_limits::kMaxVertexCapacity;
    if (capacity <= vertexCapacity.load()) return;  // already at the cap
    recreateGeometryBuffers(capacity);
    renderLog(RenderLogItem::VertexPoolGrew, capacity);
}

} // namespace brisvale
