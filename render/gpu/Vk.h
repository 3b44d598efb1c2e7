#pragma once
// The one place where the GPU layer pulls in Vulkan, plus the error helpers every gpu/ file uses.

#include <vulkan/vulkan.h>

#include <string>

namespace brisvale::gpu {

// The symbolic name of a result code ("VK_ERROR_DEVICE_LOST"), for messages.
const char* resultName(VkResult result);

// Throws std::runtime_error("<what>: <result name>") unless result is VK_SUCCESS.
void check(VkResult result, const char* what);

} // namespace brisvale::gpu
