// The default show on lavapipe with validation: the intro's lanterns outgrow the vertex pool
// so it grows at least twice, every phase draws a real picture (no flat fill, no black frame),
// and the picture fades to black as the music ends.
#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace brisvale::testing {
namespace {

constexpr std::uint32_t kWidth = 320, kHeight = 180;
constexpr float kSongSeconds = 157.0f;

struct Stats {
    double mean = 0.0, deviation = 0.0;
};

Stats lumaStats(const std::vector<std::uint8_t>& rgba) {
    double sum = 0.0, squares = 0.0;
    const std::size_t n = rgba.size() / 4;
    for (std::size_t i = 0; i < n; ++i) {
        const double y = 0.2126 * rgba[i * 4] + 0.7152 * rgba[i * 4 + 1] + 0.0722 * rgba[i * 4 + 2];
        sum += y;
        squares += y * y;
    }
    const double mean = sum / static_cast<double>(n);
    return {mean, std::sqrt(std::max(squares / static_cast<double>(n) - mean * mean, 0.0))};
}

class DefaultShowRender : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        if (HasFatalFailure()) return;
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, kWidth, kHeight);
        auto archive = DemoArchive::load(BRISVALE_SHOW_DEMO_DAT);
        DemoManifest manifest = loadDemoManifest(*archive, "demo.ini");
        renderer_ = std::make_unique<Renderer>(device_.get(), surface_.get(), archive, manifest, queue_.poster());
        renderer_->resize({kWidth, kHeight});
    }
    void TearDown() override {
        if (renderer_) finishFrames();
        renderer_.reset();
        GpuTest::TearDown();
    }
    // One frame at show time t, finished on the GPU, with any pool growth it asked for applied.
    std::vector<std::uint8_t> frameAt(float t, float dt = 1.0f / 60.0f) {
        FrameInfo frame;
        frame.timeSeconds = t;
        frame.deltaSeconds = dt;
        frame.showDurationSeconds = kSongSeconds;
        frame.renderEndSeconds = kSongSeconds + 3.75f;
        renderer_->draw(frame);
        finishFrames();
        queue_.drain();
        return surface_->readbackRGBA();
    }
    std::uint32_t capacity() { return RendererTesting::impl(*renderer_).vertexCapacity.load(); }

    std::unique_ptr<gpu::OffscreenSurface> surface_;
    std::unique_ptr<Renderer> renderer_;
};

TEST_F(DefaultShowRender, IntroOutgrowsTheVertexPoolAtLeastTwice) {
    ::testing::internal::CaptureStderr();
    for (float t = 0.0f; t < 9.25f; t += 0.25f) frameAt(t, 0.25f);
    const std::string printed = ::testing::internal::GetCapturedStderr();
    std::size_t growths = 0;
    for (std::size_t at = printed.find("Grew GPU vertex pool to"); at != std::string::npos;
         at = printed.find("Grew GPU vertex pool to", at + 1))
        ++growths;
    EXPECT_GE(growths, 2u) << printed;
    EXPECT_GE(capacity(), 16384u);
    EXPECT_LE(capacity(), 32768u);  // the intro asks for what it needs, not for the cap
}

TEST_F(DefaultShowRender, EveryPhaseDrawsADetailedPicture) {
    for (float t : {1.0f, 5.0f, 9.0f, 20.0f, 40.0f, 60.0f, 80.0f, 100.0f, 125.0f, 140.0f, 143.0f, 150.0f}) {
        frameAt(t);  // the first frame of a phase may ask for a larger pool
        const Stats stats = lumaStats(frameAt(t + 1.0f / 60.0f));
        EXPECT_GT(stats.mean, 4.0) << "t = " << t;
        EXPECT_GT(stats.deviation, 6.0) << "t = " << t << ": a flat picture";
    }
}

TEST_F(DefaultShowRender, FinaleDrawsDepthTestedGeometryUnderTheComposite) {
    frameAt(146.0f);
    const Stats withCubes = lumaStats(frameAt(146.0f + 1.0f / 60.0f));
    EXPECT_GT(withCubes.deviation, 10.0);
    EXPECT_GE(capacity(), 17280u);  // 480 cubes of 36 vertices
}

TEST_F(DefaultShowRender, PictureFadesToBlackWithTheMusic) {
    frameAt(kSongSeconds + 1.0f);
    const Stats end = lumaStats(frameAt(kSongSeconds + 1.0f + 1.0f / 60.0f));
    EXPECT_LT(end.mean, 2.0);
}

}  // namespace
}  // namespace brisvale::testing
