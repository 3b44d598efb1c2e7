#pragma once
// GPU buffers: private to the GPU (filled by shaders or through a staging copy) or visible to the
// processor (mapped for their whole life; flush after writing, invalidate before reading).

#include "render/gpu/Vk.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace brisvale::gpu {

class Device;

enum class BufferMemory {
    GpuPrivate,   // device-local; the processor never maps it
    HostVisible,  // mapped; coherent where the device has it
    HostReadback, // mapped; cached where the device has it (read after the GPU wrote)
};

class Buffer {
public:
    // Throws Error when the buffer or its memory cannot be made.
    static std::unique_ptr<Buffer> create(Device& device, VkDeviceSize size, VkBufferUsageFlags usage,
                                          BufferMemory memory);
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    VkBuffer handle() const { return buffer_; }
    VkDeviceSize size() const { return size_; }

    // Host-visible buffers only: the mapped bytes.
    void* data() const { return mapped_; }
    // Makes processor writes visible to the GPU (no-op on coherent memory).
    void flush();
    // Makes GPU writes visible to the processor (no-op on coherent memory). Call after the GPU work
    // and its host-read barrier have completed.
    void invalidate();

    // GPU-private buffers: copies bytes in through a staging buffer and waits for it.
    void upload(const void* bytes, VkDeviceSize size);

private:
    Buffer(Device& device) : device_(device) {}
    VkMappedMemoryRange wholeMemory() const;

    Device& device_;
    VkBuffer buffer_ = VK_NULL_HANDLE;
    VkDeviceMemory memory_ = VK_NULL_HANDLE;
    VkDeviceSize size_ = 0;
    void* mapped_ = nullptr;
    bool coherent_ = true;
};

} // namespace brisvale::gpu
