#pragma once
// The driver's pipeline cache: pipelines made with it reuse what earlier pipelines compiled, in
// this run or, from the bytes an earlier run saved, in that one. Vulkan synchronises it
// internally, so pipelines may be made with it from several threads at once.

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace brisvale::gpu {

class Device;

class PipelineCache {
public:
    // Starts from `saved` only when its Vulkan header names this device and driver (vendor,
    // device, cache UUID), else empty: other bytes never reach the driver. Throws Error when the
    // driver cannot make a cache.
    static std::unique_ptr<PipelineCache> create(Device& device, std::span<const std::uint8_t> saved);
    ~PipelineCache();
    PipelineCache(const PipelineCache&) = delete;
    PipelineCache& operator=(const PipelineCache&) = delete;

    VkPipelineCache handle() const { return cache_; }
    bool startedFromSaved() const { return startedFromSaved_; }
    // What the cache holds now, to be saved; empty when the driver cannot tell or it holds more
    // than maxBytes.
    std::vector<std::uint8_t> data(std::size_t maxBytes) const;

private:
    explicit PipelineCache(Device& device) : device_(device) {}
    Device& device_;
    VkPipelineCache cache_ = VK_NULL_HANDLE;
    bool startedFromSaved_ = false;
};

// Whether `bytes` begin with a pipeline cache header of version one that names this device.
bool pipelineCacheHeaderMatches(const Device& device, std::span<const std::uint8_t> bytes);

} // namespace brisvale::gpu
