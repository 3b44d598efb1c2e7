#include "render/gpu/Timestamps.h"

#include "render/gpu/Device.h"

#include <vector>

namespace brisvale::gpu {

std::unique_ptr<TimestampQueries> TimestampQueries::create(Device& device, std::uint32_t pairs) {
    std::uint32_t count = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(device.physicalDevice(), &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    vkGetPhysicalDeviceQueueFamilyProperties(device.physicalDevice(), &count, families.data());
    if (device.queueFamily() >= count) return nullptr;
    const std::uint32_t validBits = families[device.queueFamily()].timestampValidBits;
    const float period = device.properties().limits.timestampPeriod;
    if (validBits == 0 || !(period > 0.0f)) return nullptr;

    std::unique_ptr<TimestampQueries> self(new TimestampQueries(device));
    self->validMask_ = validBits >= 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << validBits) - 1;
    self->nanosecondsPerTick_ = period;
    VkQueryPoolCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_QUERY_POOL_CREATE_INFO;
    info.queryType = VK_QUERY_TYPE_TIMESTAMP;
    info.queryCount = 2 * pairs;
    checkCreated(vkCreateQueryPool(device.handle(), &info, nullptr, &self->pool_), self->pool_, "vkCreateQueryPool");
    return self;
}

TimestampQueries::~TimestampQueries() {
    if (pool_ != VK_NULL_HANDLE) vkDestroyQueryPool(device_.handle(), pool_, nullptr);
}

void TimestampQueries::begin(VkCommandBuffer commands, std::uint32_t pair) {
    vkCmdResetQueryPool(commands, pool_, 2 * pair, 2);
    vkCmdWriteTimestamp2(commands, VK_PIPELINE_STAGE_2_TOP_OF_PIPE_BIT, pool_, 2 * pair);
}

void TimestampQueries::end(VkCommandBuffer commands, std::uint32_t pair) {
    vkCmdWriteTimestamp2(commands, VK_PIPELINE_STAGE_2_BOTTOM_OF_PIPE_BIT, pool_, 2 * pair + 1);
}

std::optional<double> TimestampQueries::seconds(std::uint32_t pair) const {
    std::uint64_t ticks[2] = {0, 0};
    if (vkGetQueryPoolResults(device_.handle(), pool_, 2 * pair, 2, sizeof ticks, ticks, sizeof ticks[0],
                              VK_QUERY_RESULT_64_BIT) != VK_SUCCESS)
        return std::nullopt;
    // Only the valid bits count, and the counter may have wrapped between the two.
    const std::uint64_t elapsed = ((ticks[1] & validMask_) - (ticks[0] & validMask_)) & validMask_;
    return static_cast<double>(elapsed) * nanosecondsPerTick_ * 1e-9;
}

} // namespace brisvale::gpu
