#pragma once
// The GPU device: Vulkan instance (with the validation layer when asked for), the chosen physical
// device (discrete > integrated > virtual > CPU), the logical device, its one queue, and the
// completion thread that runs frame handlers. Everything else in gpu/ is made from a Device.

#include "render/gpu/Vk.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace brisvale::gpu {

class CompletionThread;

struct DeviceOptions {
    std::vector<std::string> instanceExtensions;  // e.g. from SDL_Vulkan_GetInstanceExtensions
    // The Khronos validation layer and a messenger that counts. A validation layer that the
    // Vulkan loader adds by itself (VK_INSTANCE_LAYERS) reaches the same messenger without this:
    // that is how a program with no such switch of its own is checked.
    bool validation = false;
};

class Device {
public:
    // Throws Error when there is no usable Vulkan 1.3 device or it cannot be set up.
    static std::unique_ptr<Device> create(const DeviceOptions& options);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Validation messages seen so far (each is logged as it arrives).
    std::uint32_t validationMessageCount() const { return validationMessages_.load(); }
    bool validationEnabled() const { return messenger_ != VK_NULL_HANDLE; }

    VkInstance instance() const { return instance_; }
    VkPhysicalDevice physicalDevice() const { return physicalDevice_; }
    VkDevice handle() const { return device_; }
    std::uint32_t queueFamily() const { return queueFamily_; }
    const VkPhysicalDeviceProperties& properties() const { return properties_; }
    bool supportsSwapchain() const { return swapchainEnabled_; }

    // A memory type allowed by typeBits with every `required` flag, preferring one that also has
    // the `preferred` flags.
    std::optional<std::uint32_t> findMemoryType(std::uint32_t typeBits, VkMemoryPropertyFlags required,
                                                VkMemoryPropertyFlags preferred) const;
    bool isHostCoherent(std::uint32_t memoryType) const;
    // Memory for `requirements` of such a type; the caller frees it. Throws Error when no type
    // fits, the size is beyond one allocation, or the allocation fails.
    struct Allocation {
        VkDeviceMemory memory = VK_NULL_HANDLE;
        std::uint32_t type = 0;
    };
    Allocation allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags required,
                        VkMemoryPropertyFlags preferred) const;
    VkDeviceSize nonCoherentAtomSize() const { return properties_.limits.nonCoherentAtomSize; }
    // The largest single memory allocation the device promises to make.
    VkDeviceSize maxAllocationSize() const { return maxAllocationSize_; }

    // The queue is shared by the renderer, the surfaces and one-shot work; these serialise it.
    VkResult submit(const VkSubmitInfo2& info, VkFence fence);
    VkResult present(const VkPresentInfoKHR& info);
    void waitIdle();

    // Records one-shot work (uploads, clears, readbacks), submits it and waits for it. Throws
    // Error when it cannot be recorded or the GPU does not finish it.
    void runNow(const std::function<void(VkCommandBuffer)>& record);

    CompletionThread& completions() { return *completions_; }

private:
    Device() = default;
    void installMessenger(const VkDebugUtilsMessengerCreateInfoEXT& info);
    static VKAPI_ATTR VkBool32 VKAPI_CALL onMessage(VkDebugUtilsMessageSeverityFlagBitsEXT severity,
                                                    VkDebugUtilsMessageTypeFlagsEXT types,
                                                    const VkDebugUtilsMessengerCallbackDataEXT* data,
                                                    void* user);

    VkInstance instance_ = VK_NULL_HANDLE;
    VkDebugUtilsMessengerEXT messenger_ = VK_NULL_HANDLE;
    VkPhysicalDevice physicalDevice_ = VK_NULL_HANDLE;
    VkPhysicalDeviceProperties properties_{};
    VkPhysicalDeviceMemoryProperties memory_{};
    VkDeviceSize maxAllocationSize_ = 0;
    VkDevice device_ = VK_NULL_HANDLE;
    std::uint32_t queueFamily_ = 0;
    VkQueue queue_ = VK_NULL_HANDLE;
    bool swapchainEnabled_ = false;
    // Written by the messenger callback on whichever thread made the call.
    std::atomic<std::uint32_t> validationMessages_{0};
    // queueMutex_ guards queue_ (submit, present, wait idle): the main thread, tools' readbacks
    // and uploads made off the main thread (prepared image arrays) share it.
    std::mutex queueMutex_;
    // oneShotMutex_ guards oneShotPool_ and every command buffer allocated from it while it is
    // recorded (Vulkan asks for external synchronisation of the pool for both): one-shot work
    // may come from several threads at once. Never held while waiting for the GPU.
    std::mutex oneShotMutex_;
    VkCommandPool oneShotPool_ = VK_NULL_HANDLE;
    std::unique_ptr<CompletionThread> completions_;
};

} // namespace brisvale::gpu
