#include <gtest/gtest.h>

#include "app/DrawableSize.h"

namespace brisvale {
namespace {

DrawableGeometry windowed(double width, double height, double windowScale, double screenScale) {
    DrawableGeometry g;
    g.boundsWidth = width;
    g.boundsHeight = height;
    g.windowScale = windowScale;
    g.mainScreenScale = screenScale;
    return g;
}

TEST(DrawableSizeRule, WindowPointsTimesBackingScale) {
    const DrawableSize pixels = drawableSizeFor(windowed(1280, 720, 2.0, 1.0));
    EXPECT_DOUBLE_EQ(pixels.width, 2560.0);
    EXPECT_DOUBLE_EQ(pixels.height, 1440.0);
    const SurfaceSize size = surfaceSizeFor(pixels);
    EXPECT_EQ(size.width, 2560u);
    EXPECT_EQ(size.height, 1440u);
}

TEST(DrawableSizeRule, FullScreenIsAlways1920By1080) {
    for (double scale : {1.0, 2.0, 0.0}) {
        DrawableGeometry g = windowed(3840, 2160, scale, 2.0);
        g.fullScreen = true;
        const SurfaceSize size = surfaceSizeFor(drawableSizeFor(g));
        EXPECT_EQ(size.width, 1920u);
        EXPECT_EQ(size.height, 1080u);
    }
}

TEST(DrawableSizeRule, NoWindowUsesTheMainScreenScale) {
    const SurfaceSize size = surfaceSizeFor(drawableSizeFor(windowed(1280, 720, 0.0, 2.0)));
    EXPECT_EQ(size.width, 2560u);
    EXPECT_EQ(size.height, 1440u);
}

TEST(DrawableSizeRule, PixelsAreTruncatedNotRounded) {
    const DrawableSize pixels = drawableSizeFor(windowed(100.7, 50.5, 1.0, 1.0));
    EXPECT_DOUBLE_EQ(pixels.width, 100.7);
    const SurfaceSize size = surfaceSizeFor(pixels);
    EXPECT_EQ(size.width, 100u);
    EXPECT_EQ(size.height, 50u);
    // Fractional scales work in double: 1281 points at 1.5 give 1921.5 pixels.
    EXPECT_EQ(surfaceSizeFor(drawableSizeFor(windowed(1281, 721, 1.5, 1.0))).width, 1921u);
}

TEST(DrawableSizeRule, UnrepresentableSizesStayDefined) {
    EXPECT_EQ(surfaceSizeFor(DrawableSize{-5.0, 0.0}).width, 0u);
    EXPECT_EQ(surfaceSizeFor(DrawableSize{1e12, 1.0}).width, 4294967295u);
}

} // namespace
} // namespace brisvale
