#include <gtest/gtest.h>

#include "app/DrawableSize.h"

namespace brisvale {
namespace {

TEST(DrawableSizeRule, PointsTimesTheBackingScaleTruncatedAndFullScreenAlways1920By1080) {
    struct Case {
        DrawableGeometry geometry;
        unsigned width, height;
    };
    const Case cases[] = {
        {{false, 2.0, 1.0, 1280, 720}, 2560, 1440},
        {{false, 0.0, 2.0, 1280, 720}, 2560, 1440},  // no window yet: the main screen's scale
        {{false, 1.0, 1.0, 100.7, 50.5}, 100, 50},   // truncated, not rounded
        {{false, 1.5, 1.0, 1281, 721}, 1921, 1081},  // fractional scales work in double: 1921.5
        {{true, 1.0, 2.0, 3840, 2160}, 1920, 1080},
        {{true, 2.0, 2.0, 3840, 2160}, 1920, 1080},
        {{true, 0.0, 2.0, 3840, 2160}, 1920, 1080},
    };
    for (const Case& c : cases) {
        const SurfaceSize size = surfaceSizeFor(drawableSizeFor(c.geometry));
        EXPECT_EQ(size.width, c.width) << "case " << &c - cases;
        EXPECT_EQ(size.height, c.height) << "case " << &c - cases;
    }
    EXPECT_DOUBLE_EQ(drawableSizeFor(cases[2].geometry).width, 100.7) << "the layer's size is not truncated";
}

TEST(DrawableSizeRule, UnrepresentableSizesStayDefined) {
    EXPECT_EQ(surfaceSizeFor(DrawableSize{-5.0, 0.0}).width, 0u);
    EXPECT_EQ(surfaceSizeFor(DrawableSize{1e12, 1.0}).width, 4294967295u);
}

} // namespace
} // namespace brisvale
