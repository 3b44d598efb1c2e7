#pragma once
// Texture samplers (clamp to edge; linear for images, nearest for depth).

#include "render/gpu/Vk.h"

#include <memory>

namespace brisvale::gpu {

class Device;

class Sampler {
public:
    static std::unique_ptr<Sampler> create(Device& device, VkFilter filter);  // throws Error on failure
    ~Sampler();
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;
    VkSampler handle() const { return sampler_; }

private:
    Sampler(Device& device) : device_(device) {}
    Device& device_;
    VkSampler sampler_ = VK_NULL_HANDLE;
};

} // namespace brisvale::gpu
