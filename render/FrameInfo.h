#pragma once

#include <cstdint>

namespace brisvale {

// The renderer's per-frame input. The show clock fills the first two fields,
// the render view the last two.
struct FrameInfo {
    float timeSeconds = 0.0f;          // since the show clock started
    float deltaSeconds = 0.0f;         // since the previous tick
    float showDurationSeconds = 0.0f;  // the music's length, 0 when none loaded
    float renderEndSeconds = 0.0f;     // show time at which the show ends, 0 for none
};

// Drawable size in pixels.
struct SurfaceSize {
    std::uint32_t width = 1;
    std::uint32_t height = 1;
};

} // namespace brisvale
