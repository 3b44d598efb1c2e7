// Device creation: instance and validation messenger, physical device choice, logical device and
// queue, and the few queue-level services (submit, present, one-shot work) the rest of gpu/ uses.
//
// [SECTION] Instance and validation
// [SECTION] Physical device choice
// [SECTION] Logical device
// [SECTION] Queue services

#include "render/gpu/Device.h"

#include "render/RenderLog.h"
#include "render/gpu/CompletionThread.h"

#include <cstring>
#include <string>

namespace brisvale::gpu {
namespace {

constexpr const char* kValidationLayer = "VK_LAYER_KHRONOS_validation";

bool hasLayer(const char* name) {
    std::uint32_t count = 0;
    vkEnumerateInstanceLayerProperties(&count, nullptr);
    std::vector<VkLayerProperties> layers(count);
    vkEnumerateInstanceLayerProperties(&count, layers.data());
    for (const auto& layer : layers) {
        if (std::strcmp(layer.layerName, name) == 0) return true;
    }
    return false;
}

bool hasInstanceExtension(const char* name) {
    std::uint32_t count = 0;
    vkEnumerateInstanceExtensionProperties(nullptr, &count, nullptr);
    std::vector<VkExtensionProperties> extensions(count);
    vkEnumerateInstanceExtensionProperties(nullptr, &count, extensions.data());
    for (const auto& extension : extensions) {
        if (std::strcmp(extension.extensionName, name) == 0) return true;
    }
    return false;
}

bool hasDeviceExtension(VkPhysicalDevice device, const char* name) {
    std::uint32_t count = 0;
    vkEnumerateDeviceExtensionProperties(device, nullptr, &count, nullptr);
    std::vector<VkExtensionProperties> extensions(count);
    vkEnumerateDeviceExtensionProperties(device, nullptr, &count, extensions.data());
    for (const auto& extension : extensions) {
        if (std::strcmp(extension.extensionName, name) == 0) return true;
    }
    return false;
}

int typeRank(VkPhysicalDeviceType type) {
    switch (type) {
    case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU: return 4;
    case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU: return 3;
    case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU: return 2;
    case VK_PHYSICAL_DEVICE_TYPE_CPU: return 1;
    default: return 0;
    }
}

std::optional<std::uint32_t> graphicsComputeFamily(VkPhysicalDevice device) {
    std::uint32_t count = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, families.data());
    for (std::uint32_t i = 0; i < count; ++i) {
        const VkQueueFlags wanted = VK_QUEUE_GRAPHICS_BIT | VK_QUEUE_COMPUTE_BIT;
        if ((families[i].queueFlags & wanted) == wanted) return i;
    }
    return std::nullopt;
}

// Whether a layer on the instance says that it validates. A layer the loader added by itself
// (VK_INSTANCE_LAYERS) is not among those the program enabled, so the layers are asked. Khronos
// layers before 1.3.250 or so answer only the extension's name of the call.
bool validationToolActive(VkInstance instance, VkPhysicalDevice device) {
    for (const char* name : {"vkGetPhysicalDeviceToolProperties", "vkGetPhysicalDeviceToolPropertiesEXT"}) {
        auto getTools = reinterpret_cast<PFN_vkGetPhysicalDeviceToolProperties>(vkGetInstanceProcAddr(instance, name));
        std::uint32_t count = 0;
        if (getTools == nullptr || getTools(device, &count, nullptr) != VK_SUCCESS || count == 0) continue;
        VkPhysicalDeviceToolProperties blank{};
        blank.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_TOOL_PROPERTIES;
        std::vector<VkPhysicalDeviceToolProperties> tools(count, blank);
        const VkResult result = getTools(device, &count, tools.data());
        if (result != VK_SUCCESS && result != VK_INCOMPLETE) continue;
        for (std::uint32_t i = 0; i < count && i < tools.size(); ++i) {
            if ((tools[i].purposes & VK_TOOL_PURPOSE_VALIDATION_BIT) != 0) return true;
        }
    }
    return false;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Instance and validation
// ---------------------------------------------------------------------------------------------

VKAPI_ATTR VkBool32 VKAPI_CALL Device::onMessage(VkDebugUtilsMessageSeverityFlagBitsEXT,
                                                 VkDebugUtilsMessageTypeFlagsEXT,
                                                 const VkDebugUtilsMessengerCallbackDataEXT* data,
                                                 void* user) {
    auto* self = static_cast<Device*>(user);
    self->validationMessages_.fetch_add(1);
    const char* text = data && data->pMessage ? data->pMessage : "(no text)";
    renderLog(RenderLogItem::ValidationMessage, text);
    return VK_FALSE;
}

void Device::installMessenger(const VkDebugUtilsMessengerCreateInfoEXT& info) {
    auto createMessenger = reinterpret_cast<PFN_vkCreateDebugUtilsMessengerEXT>(
        vkGetInstanceProcAddr(instance_, "vkCreateDebugUtilsMessengerEXT"));
    if (createMessenger) {
        checkCreated(createMessenger(instance_, &info, nullptr, &messenger_), messenger_,
                     "vkCreateDebugUtilsMessengerEXT");
    }
}

std::unique_ptr<Device> Device::create(const DeviceOptions& options) {
    std::unique_ptr<Device> self(new Device());  // private constructor: make_unique cannot reach it
    // debug_utils is enabled wherever it is offered, so that a layer the loader adds by itself
    // has a messenger to report to; the messenger is installed only where a layer validates.
    const bool debugUtils = hasInstanceExtension(VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
    const bool validation = options.validation && hasLayer(kValidationLayer) && debugUtils;
    if (options.validation && !validation) {
        renderLog(RenderLogItem::ValidationLayerMissing);
    }

    std::vector<const char*> extensions;
    bool wantsSurface = false;
    for (const auto& name : options.instanceExtensions) {
        extensions.push_back(name.c_str());
        if (name == VK_KHR_SURFACE_EXTENSION_NAME) wantsSurface = true;
    }
    if (debugUtils) extensions.push_back(VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
    std::vector<const char*> layers;
    if (validation) layers.push_back(kValidationLayer);

    VkApplicationInfo app{};

    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.pApplicationName = "Brisvale";
    app.pEngineName = "Brisvale";
    app.apiVersion = VK_API_VERSION_1_3;

    VkDebugUtilsMessengerCreateInfoEXT messengerInfo{};

    messengerInfo.sType = VK_STRUCTURE_TYPE_DEBUG_UTILS_MESSENGER_CREATE_INFO_EXT;
    messengerInfo.messageSeverity =
        VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT | VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT;
    messengerInfo.messageType = VK_DEBUG_UTILS_MESSAGE_TYPE_GENERAL_BIT_EXT |
                                VK_DEBUG_UTILS_MESSAGE_TYPE_VALIDATION_BIT_EXT |
                                VK_DEBUG_UTILS_MESSAGE_TYPE_PERFORMANCE_BIT_EXT;
    messengerInfo.pfnUserCallback = &Device::onMessage;
    messengerInfo.pUserData = self.get();

    VkInstanceCreateInfo instanceInfo{};

    instanceInfo.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    instanceInfo.pNext = validation ? &messengerInfo : nullptr;  // also covers instance creation
    instanceInfo.pApplicationInfo = &app;
    instanceInfo.enabledLayerCount = static_cast<std::uint32_t>(layers.size());
    instanceInfo.ppEnabledLayerNames = layers.data();
    instanceInfo.enabledExtensionCount = static_cast<std::uint32_t>(extensions.size());
    instanceInfo.ppEnabledExtensionNames = extensions.data();
    checkCreated(vkCreateInstance(&instanceInfo, nullptr, &self->instance_), self->instance_, "vkCreateInstance");
    if (validation) {
        self->installMessenger(messengerInfo);
    }

    // -----------------------------------------------------------------------------------------
    // [SECTION] Physical device choice
    // -----------------------------------------------------------------------------------------
    std::uint32_t count = 0;
    vkEnumeratePhysicalDevices(self->instance_, &count, nullptr);
    std::vector<VkPhysicalDevice> candidates(count);
    vkEnumeratePhysicalDevices(self->instance_, &count, candidates.data());
    int bestRank = -1;
    for (VkPhysicalDevice candidate : candidates) {
        VkPhysicalDeviceProperties properties;
        vkGetPhysicalDeviceProperties(candidate, &properties);
        if (properties.apiVersion < VK_API_VERSION_1_3) continue;
        VkPhysicalDeviceVulkan13Features features13{};
        features13.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES;
        VkPhysicalDeviceFeatures2 features{};
        features.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
        features.pNext = &features13;
        vkGetPhysicalDeviceFeatures2(candidate, &features);
        if (!features13.dynamicRendering || !features13.synchronization2) continue;
        const auto family = graphicsComputeFamily(candidate);
        if (!family) continue;
        if (wantsSurface && !hasDeviceExtension(candidate, VK_KHR_SWAPCHAIN_EXTENSION_NAME)) continue;
        const int rank = typeRank(properties.deviceType);
        if (rank > bestRank) {
            bestRank = rank;
            self->physicalDevice_ = candidate;
            self->properties_ = properties;
            self->queueFamily_ = *family;
        }
    }
    if (self->physicalDevice_ == VK_NULL_HANDLE) {
        throw Error("No Vulkan 1.3 device with dynamic rendering, synchronization2 and a graphics and compute queue");
    }
    // A validation layer the loader added: its messages from here on reach the messenger.
    if (!validation && debugUtils && validationToolActive(self->instance_, self->physicalDevice_)) {
        self->installMessenger(messengerInfo);
    }
    vkGetPhysicalDeviceMemoryProperties(self->physicalDevice_, &self->memory_);
    VkPhysicalDeviceVulkan11Properties properties11{};
    properties11.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_1_PROPERTIES;
    VkPhysicalDeviceProperties2 properties2{};
    properties2.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
    properties2.pNext = &properties11;
    vkGetPhysicalDeviceProperties2(self->physicalDevice_, &properties2);
    self->maxAllocationSize_ = properties11.maxMemoryAllocationSize;

    // -----------------------------------------------------------------------------------------
    // [SECTION] Logical device
    // -----------------------------------------------------------------------------------------
    VkPhysicalDeviceVulkan13Features supported13{};
    supported13.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES;
    VkPhysicalDeviceVulkan12Features supported12{};
    supported12.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_2_FEATURES;
    supported12.pNext = &supported13;
    VkPhysicalDeviceFeatures2 supported{};
    supported.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
    supported.pNext = &supported12;
    vkGetPhysicalDeviceFeatures2(self->physicalDevice_, &supported);

    // Only what the renderer and show shaders may use; optional ones where the device has them.
    VkPhysicalDeviceVulkan13Features enabled13{};
    enabled13.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES;
    enabled13.dynamicRendering = VK_TRUE;
    enabled13.synchronization2 = VK_TRUE;
    enabled13.maintenance4 = supported13.maintenance4;
    VkPhysicalDeviceVulkan12Features enabled12{};
    enabled12.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_2_FEATURES;
    enabled12.pNext = &enabled13;
    enabled12.scalarBlockLayout = supported12.scalarBlockLayout;
    VkPhysicalDeviceFeatures2 enabled{};
    enabled.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
    enabled.pNext = &enabled12;
    enabled.features.vertexPipelineStoresAndAtomics = supported.features.vertexPipelineStoresAndAtomics;
    enabled.features.fragmentStoresAndAtomics = supported.features.fragmentStoresAndAtomics;

    const float priority = 1.0f;
    VkDeviceQueueCreateInfo queueInfo{};
    queueInfo.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
    queueInfo.queueFamilyIndex = self->queueFamily_;
    queueInfo.queueCount = 1;
    queueInfo.pQueuePriorities = &priority;

    std::vector<const char*> deviceExtensions;
    if (hasDeviceExtension(self->physicalDevice_, VK_KHR_SWAPCHAIN_EXTENSION_NAME) && wantsSurface) {
        deviceExtensions.push_back(VK_KHR_SWAPCHAIN_EXTENSION_NAME);
        self->swapchainEnabled_ = true;
    }
    VkDeviceCreateInfo deviceInfo{};
    deviceInfo.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
    deviceInfo.pNext = &enabled;
    deviceInfo.queueCreateInfoCount = 1;
    deviceInfo.pQueueCreateInfos = &queueInfo;
    deviceInfo.enabledExtensionCount = static_cast<std::uint32_t>(deviceExtensions.size());
    deviceInfo.ppEnabledExtensionNames = deviceExtensions.data();
    checkCreated(vkCreateDevice(self->physicalDevice_, &deviceInfo, nullptr, &self->device_), self->device_,
                 "vkCreateDevice");
    vkGetDeviceQueue(self->device_, self->queueFamily_, 0, &self->queue_);

    VkCommandPoolCreateInfo poolInfo{};

    poolInfo.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
    poolInfo.flags = VK_COMMAND_POOL_CREATE_TRANSIENT_BIT | VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    poolInfo.queueFamilyIndex = self->queueFamily_;
    checkCreated(vkCreateCommandPool(self->device_, &poolInfo, nullptr, &self->oneShotPool_), self->oneShotPool_,
                 "vkCreateCommandPool");
    self->completions_ = std::make_unique<CompletionThread>(self->device_);
    return self;
}

Device::~Device() {
    completions_.reset();  // every pending handler runs before the device goes
    if (device_ != VK_NULL_HANDLE) {
        vkDeviceWaitIdle(device_);
        if (oneShotPool_ != VK_NULL_HANDLE) vkDestroyCommandPool(device_, oneShotPool_, nullptr);
        vkDestroyDevice(device_, nullptr);
    }
    if (messenger_ != VK_NULL_HANDLE) {
        auto destroyMessenger = reinterpret_cast<PFN_vkDestroyDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(instance_, "vkDestroyDebugUtilsMessengerEXT"));
        if (destroyMessenger) destroyMessenger(instance_, messenger_, nullptr);
    }
    if (instance_ != VK_NULL_HANDLE) vkDestroyInstance(instance_, nullptr);
}

std::optional<std::uint32_t> Device::findMemoryType(std::uint32_t typeBits, VkMemoryPropertyFlags required,
                                                    VkMemoryPropertyFlags preferred) const {
    std::optional<std::uint32_t> fallback;
    for (std::uint32_t i = 0; i < memory_.memoryTypeCount; ++i) {
        if ((typeBits & (1u << i)) == 0) continue;
        const VkMemoryPropertyFlags flags = memory_.memoryTypes[i].propertyFlags;
        if ((flags & required) != required) continue;
        if ((flags & preferred) == preferred) return i;
        if (!fallback) fallback = i;
    }
    return fallback;
}

bool Device::isHostCoherent(std::uint32_t memoryType) const {
    return (memory_.memoryTypes[memoryType].propertyFlags & VK_MEMORY_PROPERTY_HOST_COHERENT_BIT) != 0;
}

Device::Allocation Device::allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags required,
                                    VkMemoryPropertyFlags preferred) const {
    const std::optional<std::uint32_t> type = findMemoryType(requirements.memoryTypeBits, required, preferred);
    if (!type) throw Error("No memory type of the device has the properties asked for");
    // The device promises nothing above this size: refused before the driver sees it.
    if (requirements.size > maxAllocationSize_)
        throw Error("An allocation of " + std::to_string(requirements.size) + " bytes is beyond the device's largest");
    VkMemoryAllocateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    info.allocationSize = requirements.size;
    info.memoryTypeIndex = *type;
    Allocation allocation;
    allocation.type = *type;
    checkCreated(vkAllocateMemory(device_, &info, nullptr, &allocation.memory), allocation.memory, "vkAllocateMemory");
    return allocation;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Queue services
// ---------------------------------------------------------------------------------------------

VkResult Device::submit(const VkSubmitInfo2& info, VkFence fence) {
    std::lock_guard lock(queueMutex_);
    return vkQueueSubmit2(queue_, 1, &info, fence);
}

VkResult Device::present(const VkPresentInfoKHR& info) {
    std::lock_guard lock(queueMutex_);
    return vkQueuePresentKHR(queue_, &info);
}

void Device::waitIdle() {
    std::lock_guard lock(queueMutex_);
    vkQueueWaitIdle(queue_);
}

void Device::runNow(const std::function<void(VkCommandBuffer)>& record) {
    VkFenceCreateInfo fenceInfo{};
    fenceInfo.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    VkFence fence = VK_NULL_HANDLE;
    checkCreated(vkCreateFence(device_, &fenceInfo, nullptr, &fence), fence, "vkCreateFence");
    VkCommandBuffer commands = VK_NULL_HANDLE;
    // Both go back however this ends; the command buffer only once the GPU is done with it.
    struct Release {
        Device& device;
        VkFence& fence;
        VkCommandBuffer& commands;
        ~Release() {
            if (commands != VK_NULL_HANDLE) {
                std::lock_guard lock(device.oneShotMutex_);
                vkFreeCommandBuffers(device.device_, device.oneShotPool_, 1, &commands);
            }
            vkDestroyFence(device.device_, fence, nullptr);
        }
    } release{*this, fence, commands};
    {
        std::lock_guard lock(oneShotMutex_);
        VkCommandBufferAllocateInfo allocateInfo{};
        allocateInfo.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
        allocateInfo.commandPool = oneShotPool_;
        allocateInfo.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        allocateInfo.commandBufferCount = 1;
        checkCreated(vkAllocateCommandBuffers(device_, &allocateInfo, &commands), commands, "vkAllocateCommandBuffers");
        VkCommandBufferBeginInfo begin{};
        begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
        begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
        check(vkBeginCommandBuffer(commands, &begin), "vkBeginCommandBuffer");
        record(commands);
        check(vkEndCommandBuffer(commands), "vkEndCommandBuffer");
    }
    VkCommandBufferSubmitInfo commandInfo{};
    commandInfo.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_SUBMIT_INFO;
    commandInfo.commandBuffer = commands;
    VkSubmitInfo2 submitInfo{};
    submitInfo.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO_2;
    submitInfo.commandBufferInfoCount = 1;
    submitInfo.pCommandBufferInfos = &commandInfo;
    check(submit(submitInfo, fence), "vkQueueSubmit2");
    check(vkWaitForFences(device_, 1, &fence, VK_TRUE, UINT64_MAX), "vkWaitForFences");
}

} // namespace brisvale::gpu
