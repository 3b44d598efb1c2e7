#include "app/DrawableSize.h"

#include <cstdint>
#include <limits>

namespace brisvale {
namespace {

constexpr double kFullScreenWidth = 1920.0;
constexpr double kFullScreenHeight = 1080.0;

std::uint32_t truncatedToU32(double value) {
    // Out-of-range doubles are undefined to convert; a view is never that large, but a broken
    // window-system report must not become undefined behaviour.
    if (!(value > 0.0)) {
        return 0;
    }
    if (value >= static_cast<double>(std::numeric_limits<std::uint32_t>::max())) {
        return std::numeric_limits<std::uint32_t>::max();
    }
    return static_cast<std::uint32_t>(value);
}

} // namespace

DrawableSize drawableSizeFor(const DrawableGeometry& geometry) {
    if (geometry.fullScreen) {
        return {kFullScreenWidth, kFullScreenHeight};
    }
    double scale = geometry.windowScale;
    if (scale == 0.0) {
        scale = geometry.mainScreenScale;
    }
    return {geometry.boundsWidth * scale, geometry.boundsHeight * scale};
}

SurfaceSize surfaceSizeFor(DrawableSize size) {
    return SurfaceSize{truncatedToU32(size.width), truncatedToU32(size.height)};
}

} // namespace brisvale
