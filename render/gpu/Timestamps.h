#pragma once
// GPU timestamps around a command buffer's work: one pair of queries per frame slot, read after
// the slot's frame has completed.

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace brisvale::gpu {

class Device;

class TimestampQueries {
public:
    // nullptr when the device's queue writes no timestamps: the device has none to give, which is
    // no failure. Throws Error when the query pool cannot be made.
    static std::unique_ptr<TimestampQueries> create(Device& device, std::uint32_t pairs);
    ~TimestampQueries();
    TimestampQueries(const TimestampQueries&) = delete;
    TimestampQueries& operator=(const TimestampQueries&) = delete;

    // Recorded first in a command buffer (outside any pass): resets the pair, writes its start.
    void begin(VkCommandBuffer commands, std::uint32_t pair);
    // Recorded after the work to be timed: the pair's end, once all earlier commands are done.
    void end(VkCommandBuffer commands, std::uint32_t pair);
    // Seconds between the pair's two timestamps once the command buffer has completed; nullopt
    // while the results are not available. Any thread; allocates nothing.
    std::optional<double> seconds(std::uint32_t pair) const;

private:
    explicit TimestampQueries(Device& device) : device_(device) {}
    Device& device_;
    VkQueryPool pool_ = VK_NULL_HANDLE;
    std::uint64_t validMask_ = 0;        // timestampValidBits of the queue family
    double nanosecondsPerTick_ = 1.0;   // timestampPeriod
};

} // namespace brisvale::gpu
