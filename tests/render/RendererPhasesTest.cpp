// Frame encoding on lavapipe: which passes run in which phase, read back from the pixels that
// the marker shader's passes paint, the resolution the shaders see, and rendering below the
// drawable's size.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

#include <algorithm>
#include <limits>

namespace brisvale::testing {
namespace {

constexpr std::uint32_t kEdge = OffscreenRendererTest::kOffscreenEdge;
// Sample points (column, row) in a 64 × 64 frame: rectangle A only, A and B, B only, neither.
constexpr std::uint32_t kA[2] = {8, 30};
constexpr std::uint32_t kAB[2] = {24, 30};
constexpr std::uint32_t kB[2] = {40, 30};
constexpr std::uint32_t kNone[2] = {56, 56};

class RendererPhases : public OffscreenRendererTest {
protected:
    std::vector<std::uint8_t> frameAt(float t) {
        FrameInfo frame;
        frame.timeSeconds = t;
        frame.deltaSeconds = 1.0f / 60.0f;
        renderer_->draw(frame);
        finishFrames();
        return surface_->readbackRGBA();
    }
    Pixel at(const std::vector<std::uint8_t>& rgba, const std::uint32_t (&point)[2]) {
        return pixelAt(rgba, kEdge, point[0], point[1]);
    }
};

// The half-transparent blue quad over the clear colour (0.02, 0.02, 0.025).
const Pixel kQuadOverClear = expected(0.01f, 0.01f, 0.5125f);

void expectIntro(const std::vector<std::uint8_t>& rgba) {
    // Triangles first without a depth test (B, drawn later and farther, covers A), then the quad.
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kA[0], kA[1]), expected(0.5f, 0.0f, 0.5f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kAB[0], kAB[1]), expected(0.0f, 0.5f, 0.5f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kB[0], kB[1]), expected(0.0f, 0.5f, 0.5f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kNone[0], kNone[1]), kQuadOverClear));
}

void expectMiddle(const std::vector<std::uint8_t>& rgba) {
    for (const auto* point : {kA, kAB, kB, kNone}) {
        EXPECT_TRUE(near(pixelAt(rgba, kEdge, point[0], point[1]), kQuadOverClear));
    }
}

void expectFinale(const std::vector<std::uint8_t>& rgba) {
    // Quad, then triangles with depth less (A at 0.25 hides B at 0.75), then the composite quad
    // mixing in (sampled depth, 0, 0) at alpha 0.5.
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kA[0], kA[1]), expected(0.625f, 0.0f, 0.0f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kAB[0], kAB[1]), expected(0.625f, 0.0f, 0.0f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kB[0], kB[1]), expected(0.375f, 0.5f, 0.0f)));
    EXPECT_TRUE(near(pixelAt(rgba, kEdge, kNone[0], kNone[1]), expected(0.505f, 0.005f, 0.25625f)));
}

// Each frame's passes follow its own time, whatever the frame before it drew: the intro below
// 9.25 s, the finale from 142 s, the middle between them and for a time that is not a number.
TEST_F(RendererPhases, EachFrameDrawsThePhaseOfItsOwnTime) {
    const struct {
        float t;
        void (*expect)(const std::vector<std::uint8_t>&);
    } frames[] = {{0.0f, expectIntro},     {9.2499f, expectIntro},  {9.25f, expectMiddle},
                  {141.99f, expectMiddle}, {142.0f, expectFinale},  {600.0f, expectFinale},
                  {1.0f, expectIntro},     {150.0f, expectFinale},  {50.0f, expectMiddle},
                  {std::numeric_limits<float>::quiet_NaN(), expectMiddle}};
    for (const auto& frame : frames) {
        SCOPED_TRACE(frame.t);
        frame.expect(frameAt(frame.t));
    }
}

TEST_F(RendererPhases, ResolutionFollowsResizeAndIsOneByOneBefore) {
    // The quad's top eighth shows (resolution / 2048, imageCount / 8).
    gpu::OffscreenSurface fresh(*device_, kEdge, kEdge);
    auto renderer = makeRenderer(fresh);
    FrameInfo frame;
    frame.timeSeconds = 20.0f;
    renderer->draw(frame);
    finishFrames();
    EXPECT_TRUE(near(pixelAt(fresh.readbackRGBA(), kEdge, 32, 2), expected(1.0f / 2048, 1.0f / 2048, 1.0f / 8), 1));

    renderer->resize({1920, 1080});
    renderer->draw(frame);
    finishFrames();
    EXPECT_TRUE(near(pixelAt(fresh.readbackRGBA(), kEdge, 32, 2), expected(1920.0f / 2048, 1080.0f / 2048, 1.0f / 8), 1));
}

TEST_F(RendererPhases, DrawsAtTheDrawableSizeWhateverTheResolution) {
    renderer_->resize({1920, 1080});
    surface_->setDrawableSize(48, 32);
    frameAt(20.0f);
    EXPECT_EQ(surface_->presentedWidth(), 48u);
    EXPECT_EQ(surface_->presentedHeight(), 32u);
}

// Each channel of `scaled` at (x, y) lies within what `exact` holds around that point: a picture
// stretched from half the size differs from the exact one only by blending neighbours.
::testing::AssertionResult withinNeighbourhood(const std::vector<std::uint8_t>& scaled,
                                               const std::vector<std::uint8_t>& exact, std::uint32_t edge,
                                               std::uint32_t x, std::uint32_t y) {
    const Pixel p = pixelAt(scaled, edge, x, y);
    const int actual[4] = {p.r, p.g, p.b, p.a};
    for (int c = 0; c < 4; ++c) {
        int low = 255;
        int high = 0;
        for (std::uint32_t v = y > 2 ? y - 2 : 0; v <= std::min(y + 2, edge - 1); ++v) {
            for (std::uint32_t u = x > 2 ? x - 2 : 0; u <= std::min(x + 2, edge - 1); ++u) {
                const Pixel q = pixelAt(exact, edge, u, v);
                const int value[4] = {q.r, q.g, q.b, q.a};
                low = std::min(low, value[c]);
                high = std::max(high, value[c]);
            }
        }
        if (actual[c] < low - 2 || actual[c] > high + 2) {
            return ::testing::AssertionFailure() << "channel " << c << " at (" << x << ", " << y << ") is " << actual[c]
                                                 << ", the exact picture around it " << low << " to " << high;
        }
    }
    return ::testing::AssertionSuccess();
}

TEST_F(RendererPhases, AtHalfScaleTheShadersSeeHalfTheSizeAndThePictureStillFillsTheDrawable) {
    constexpr std::uint32_t kSize = 128;
    gpu::OffscreenSurface surface(*device_, kSize, kSize);
    auto renderer = makeRenderer(surface);
    renderer->resize({kSize, kSize});
    auto drawAt = [&](float t) {
        FrameInfo frame;
        frame.timeSeconds = t;
        renderer->draw(frame);
        finishFrames();
        return surface.readbackRGBA();
    };
    const auto exactBand = drawAt(20.0f);
    const auto exactFinale = drawAt(150.0f);

    renderer->setRenderScale(0.5f);
    // The band along the top shows the resolution the shaders were given.
    EXPECT_TRUE(near(pixelAt(drawAt(20.0f), kSize, 64, 2), expected(64.0f / 2048, 64.0f / 2048, 1.0f / 8), 1));
    EXPECT_TRUE(near(pixelAt(exactBand, kSize, 64, 2), expected(128.0f / 2048, 128.0f / 2048, 1.0f / 8), 1));
    // Depth-tested triangles and the composite's depth read at the scaled size, stretched over
    // the whole drawable (below the band, whose colour holds the resolution).
    const auto halfFinale = drawAt(150.0f);
    ASSERT_EQ(halfFinale.size(), exactFinale.size());
    EXPECT_EQ(RendererTesting::impl(*renderer).depthTexture->width(), kSize / 2);
    for (std::uint32_t y = kSize / 8 + 2; y < kSize; ++y) {
        for (std::uint32_t x = 0; x < kSize; ++x) {
            ASSERT_TRUE(withinNeighbourhood(halfFinale, exactFinale, kSize, x, y));
        }
    }

    // Text goes over the stretched picture at the drawable's own size: the same text pixels as
    // over the exact picture, and the picture elsewhere as before.
    renderer->setOverlayText("Hi");
    const auto halfWithText = drawAt(150.0f);
    renderer->setRenderScale(1.0f);
    const auto exactWithText = drawAt(150.0f);
    renderer->setRenderScale(0.5f);
    std::size_t textPixels = 0;
    for (std::uint32_t y = 0; y < kSize; ++y) {
        for (std::uint32_t x = 0; x < kSize; ++x) {
            const Pixel exact = pixelAt(exactWithText, kSize, x, y);
            if (exact.r > 200 && exact.g > 200 && exact.b > 200) {
                ++textPixels;
                ASSERT_TRUE(near(pixelAt(halfWithText, kSize, x, y), exact, 0)) << x << ", " << y;
            }
        }
    }
    EXPECT_GT(textPixels, 10u);
    EXPECT_TRUE(near(pixelAt(halfWithText, kSize, 100, 100), pixelAt(halfFinale, kSize, 100, 100), 0));
    renderer->setOverlayText("");

    // Scales changing while frames are in flight: each frame keeps its own targets (the
    // validation layer sees any that goes too early). Back at 1 the frame is the exact one.
    for (int i = 0; i < 12; ++i) {
        renderer->setRenderScale(i % 3 == 0 ? 1.0f : i % 3 == 1 ? 0.5f : 0.3f);
        FrameInfo frame;
        frame.timeSeconds = 150.0f;
        renderer->draw(frame);
    }
    renderer->setRenderScale(1.0f);
    EXPECT_EQ(drawAt(150.0f), exactFinale);
}

} // namespace
} // namespace brisvale::testing
