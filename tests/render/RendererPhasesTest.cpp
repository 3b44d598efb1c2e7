// Frame encoding on lavapipe: which passes run in which phase, read back from the pixels that
// the marker shader's passes paint, and the resolution the shaders see.

#include "RenderTestSupport.h"

#include <limits>

namespace brisvale::testing {
namespace {

constexpr std::uint32_t kEdge = 64;
// Sample points (column, row) in a 64 × 64 frame: rectangle A only, A and B, B only, neither.
constexpr std::uint32_t kA[2] = {8, 30};
constexpr std::uint32_t kAB[2] = {24, 30};
constexpr std::uint32_t kB[2] = {40, 30};
constexpr std::uint32_t kNone[2] = {56, 56};

class RendererPhases : public GpuTest {
protected:
    std::vector<std::uint8_t> frameAt(float t) {
        FrameInfo frame;
        frame.timeSeconds = t;
        frame.deltaSeconds = 1.0f / 60.0f;
        renderer_->draw(frame);
        finishFrames();
        return surface_->readbackRGBA();
    }
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, kEdge, kEdge);
        renderer_ = makeRenderer(*surface_);
        renderer_->resize({kEdge, kEdge});
    }
    void TearDown() override {
        renderer_.reset();
        surface_.reset();
        GpuTest::TearDown();
    }
    Pixel at(const std::vector<std::uint8_t>& rgba, const std::uint32_t (&point)[2]) {
        return pixelAt(rgba, kEdge, point[0], point[1]);
    }

    std::unique_ptr<gpu::OffscreenSurface> surface_;
    std::unique_ptr<Renderer> renderer_;
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

TEST_F(RendererPhases, IntroRunsTrianglesWithoutDepthTestThenQuad) {
    expectIntro(frameAt(0.0f));
    expectIntro(frameAt(9.2499f));
}

TEST_F(RendererPhases, MiddleDrawsOnlyTheQuad) {
    expectMiddle(frameAt(9.25f));
    expectMiddle(frameAt(141.99f));
}

TEST_F(RendererPhases, FinaleDrawsDepthTestedTrianglesAndCompositeSeesTheirDepth) {
    expectFinale(frameAt(142.0f));
    expectFinale(frameAt(600.0f));
}

TEST_F(RendererPhases, NotANumberGivesTheMiddle) {
    expectMiddle(frameAt(std::numeric_limits<float>::quiet_NaN()));
}

TEST_F(RendererPhases, PhasesFollowEachFramesOwnTime) {
    expectFinale(frameAt(150.0f));
    expectIntro(frameAt(1.0f));
    expectMiddle(frameAt(50.0f));
    expectFinale(frameAt(142.0f));
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

} // namespace
} // namespace brisvale::testing
