#pragma once

#include "render/FrameInfo.h"

namespace brisvale {

// What the drawable size depends on, as the platform reports it.
struct DrawableGeometry {
    bool fullScreen = false;       // the window has the full-screen style
    double windowScale = 0.0;      // the window's pixels per point; 0 when the view has no window
    double mainScreenScale = 1.0;  // the main screen's pixels per point
    double boundsWidth = 0.0;      // the view's size in points
    double boundsHeight = 0.0;
};

// The layer's drawable size in pixels, before truncation.
struct DrawableSize {
    double width = 0.0;
    double height = 0.0;
};

// Full screen draws 1920 x 1080 whatever the screen; the layer stretches it. Otherwise the
// view's bounds times the backing scale (the main screen's while there is no window).
DrawableSize drawableSizeFor(const DrawableGeometry& geometry);

// The renderer's size: both doubles truncated toward zero (100.7 points at scale 1 give 100).
SurfaceSize surfaceSizeFor(DrawableSize size);

} // namespace brisvale
