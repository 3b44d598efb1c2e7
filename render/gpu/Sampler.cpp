#include "render/gpu/Sampler.h"

#include "render/gpu/Device.h"

namespace brisvale::gpu {

std::unique_ptr<Sampler> Sampler::create(Device& device, VkFilter filter) {
    std::unique_ptr<Sampler> self(new Sampler(device));
    VkSamplerCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_SAMPLER_CREATE_INFO;
    info.magFilter = filter;
    info.minFilter = filter;
    info.mipmapMode = VK_SAMPLER_MIPMAP_MODE_NEAREST;
    info.addressModeU = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.addressModeV = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.addressModeW = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.maxLod = 0.0f;
    checkCreated(vkCreateSampler(device.handle(), &info, nullptr, &self->sampler_), self->sampler_, "vkCreateSampler");
    return self;
}

Sampler::~Sampler() {
    if (sampler_ != VK_NULL_HANDLE) vkDestroySampler(device_.handle(), sampler_, nullptr);
}

} // namespace brisvale::gpu
