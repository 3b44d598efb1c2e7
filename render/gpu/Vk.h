#pragma once
// The one place where the GPU layer pulls in Vulkan, and its one error policy: whatever cannot be
// made throws an Error with one line that names the failed call and its result
// ("vkCreateImage failed: VK_ERROR_OUT_OF_DEVICE_MEMORY"), or says what the device lacks.
// Nothing in gpu/ prints on its own; the lines it has for a running show go through renderLog
// (render/RenderLog.h).

#include <vulkan/vulkan.h>

#include <stdexcept>

namespace brisvale::gpu {

class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The symbolic name of a result code ("VK_ERROR_DEVICE_LOST"), for messages.
const char* resultName(VkResult result);

// Throws Error("<call> failed: <result name>") unless result is VK_SUCCESS.
void check(VkResult result, const char* call);

// The same for a call that makes `handle`. A failed call leaves its output undefined: the handle
// is reset, so that the owner's destructor passes it over.
template <typename Handle> void checkCreated(VkResult result, Handle& handle, const char* call) {
    if (result != VK_SUCCESS) handle = VK_NULL_HANDLE;
    check(result, call);
}

} // namespace brisvale::gpu
