#pragma once
// The presentation surface of a window: a FIFO swapchain on an SDL2 window's Vulkan surface.
// Frames are drawn at the drawable size set by the owner and stretched onto the swapchain image.

#include "render/gpu/Surface.h"

#include <memory>

struct SDL_Window;

namespace brisvale::gpu {

class Device;

// nullptr when there is no window. Throws std::runtime_error with one line when the window has no
// usable Vulkan surface. The device must have been created with SDL's instance extensions.
std::unique_ptr<Surface> createWindowSurface(Device& device, SDL_Window* window);

} // namespace brisvale::gpu
