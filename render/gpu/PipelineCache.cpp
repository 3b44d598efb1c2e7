#include "render/gpu/PipelineCache.h"

#include "render/gpu/Device.h"

#include <cstring>

namespace brisvale::gpu {

bool pipelineCacheHeaderMatches(const Device& device, std::span<const std::uint8_t> bytes) {
    // The header every driver writes first: size, version, vendor, device, cache UUID.
    struct Header {
        std::uint32_t size;
        std::uint32_t version;
        std::uint32_t vendorID;
        std::uint32_t deviceID;
        std::uint8_t uuid[VK_UUID_SIZE];
    } header;
    static_assert(sizeof(Header) == 32);
    if (bytes.size() < sizeof(Header)) return false;
    std::memcpy(&header, bytes.data(), sizeof header);
    const VkPhysicalDeviceProperties& properties = device.properties();
    return header.size >= sizeof(Header) && header.size <= bytes.size() &&
           header.version == VK_PIPELINE_CACHE_HEADER_VERSION_ONE && header.vendorID == properties.vendorID &&
           header.deviceID == properties.deviceID &&
           std::memcmp(header.uuid, properties.pipelineCacheUUID, VK_UUID_SIZE) == 0;
}

std::unique_ptr<PipelineCache> PipelineCache::create(Device& device, std::span<const std::uint8_t> saved) {
    std::unique_ptr<PipelineCache> self(new PipelineCache(device));
    const bool useSaved = pipelineCacheHeaderMatches(device, saved);
    VkPipelineCacheCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_PIPELINE_CACHE_CREATE_INFO;
    info.initialDataSize = useSaved ? saved.size() : 0;
    info.pInitialData = useSaved ? saved.data() : nullptr;
    if (vkCreatePipelineCache(device.handle(), &info, nullptr, &self->cache_) == VK_SUCCESS) {
        self->startedFromSaved_ = useSaved;
        return self;
    }
    // The driver refused the saved bytes after all: start empty.
    self->cache_ = VK_NULL_HANDLE;
    info.initialDataSize = 0;
    info.pInitialData = nullptr;
    checkCreated(vkCreatePipelineCache(device.handle(), &info, nullptr, &self->cache_), self->cache_,
                 "vkCreatePipelineCache");
    return self;
}

PipelineCache::~PipelineCache() {
    if (cache_ != VK_NULL_HANDLE) vkDestroyPipelineCache(device_.handle(), cache_, nullptr);
}

std::vector<std::uint8_t> PipelineCache::data(std::size_t maxBytes) const {
    std::size_t size = 0;
    if (vkGetPipelineCacheData(device_.handle(), cache_, &size, nullptr) != VK_SUCCESS || size == 0 ||
        size > maxBytes)
        return {};
    std::vector<std::uint8_t> bytes(size);
    // Pipelines made since the size was asked for can leave it short: VK_INCOMPLETE, not saved.
    if (vkGetPipelineCacheData(device_.handle(), cache_, &size, bytes.data()) != VK_SUCCESS) return {};
    bytes.resize(size);
    return bytes;
}

} // namespace brisvale::gpu
