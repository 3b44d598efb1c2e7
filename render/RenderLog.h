#pragma once
// Every line the renderer and its GPU layer write while a show runs, in one place. Each line is
// an item with its text below, and renderLog is the one function that writes them: to standard
// error, one line each, with nothing allocated (the completion thread writes some of them).
// What ends a construction is not here: those are exceptions, with their messages beside the
// code that raises them.

#include <cstdint>
#include <cstdio>
#include <type_traits>

namespace brisvale {

enum class RenderLogItem {
    CommandBufferFailed,     // a frame the GPU did not finish; the show goes on
    VertexPoolGrew,          // the compute function asked for more room
    PipelineCacheIgnored,    // the author's tools' cache file: path, reason
    PipelineCacheNotSaved,   // its replacement failed: reason
    ValidationMessage,       // the Khronos validation layer's message
    ValidationLayerMissing,  // validation asked for, and no layer to give it
    SwapchainNotRecreated,   // the window's swapchain: result; no drawable until it works again
};

// The printf format of each item's line.
constexpr const char* renderLogFormat(RenderLogItem item) {
    switch (item) {
    case RenderLogItem::CommandBufferFailed: return "Metal command buffer failed: %s\n";
    case RenderLogItem::VertexPoolGrew: return "Grew GPU vertex pool to %u vertices\n";
    case RenderLogItem::PipelineCacheIgnored: return "Ignoring pipeline cache %s: %s\n";
    case RenderLogItem::PipelineCacheNotSaved: return "Failed to save pipeline cache: %s\n";
    case RenderLogItem::ValidationMessage: return "Vulkan validation: %s\n";
    case RenderLogItem::ValidationLayerMissing: return "Vulkan validation layer is not available\n";
    case RenderLogItem::SwapchainNotRecreated: return "vkCreateSwapchainKHR failed: %s\n";
    }
    return "\n";
}

// Writes the item's line with its arguments: C strings for %s, std::uint32_t for %u.
template <typename... Args> void renderLog(RenderLogItem item, Args... args) {
    static_assert(((std::is_same_v<Args, const char*> || std::is_same_v<Args, std::uint32_t>) && ...),
                  "renderLog takes C strings and 32-bit unsigned numbers");
    if constexpr (sizeof...(Args) == 0) {
        std::fputs(renderLogFormat(item), stderr);
    } else {
        std::fprintf(stderr, renderLogFormat(item), args...);
    }
}

} // namespace brisvale
