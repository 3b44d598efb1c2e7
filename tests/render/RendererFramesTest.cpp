// Frame bookkeeping on lavapipe: in-flight slots, frames without a drawable, the request record
// rotation, the depth target's life and the renderer's teardown with frames in flight.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

namespace brisvale::testing {
namespace {

class RendererFrames : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, 32, 32);
        renderer_ = makeRenderer(*surface_);
    }
    void TearDown() override {
        renderer_.reset();
        GpuTest::TearDown();
    }
    Renderer::Impl& impl() { return RendererTesting::impl(*renderer_); }
    void drawAt(float t) {
        FrameInfo frame;
        frame.timeSeconds = t;
        renderer_->draw(frame);
    }

    std::unique_ptr<gpu::OffscreenSurface> surface_;
    std::unique_ptr<Renderer> renderer_;
};

TEST_F(RendererFrames, NeverMoreThanThreeFramesInFlight) {
    for (int i = 0; i < 300; ++i) drawAt(static_cast<float>(i % 3 == 0 ? 1 : i % 3 == 1 ? 50 : 150));
    EXPECT_LE(impl().mostFramesInFlight.load(), 3u);
    EXPECT_GE(impl().mostFramesInFlight.load(), 1u);
    finishFrames();
    EXPECT_EQ(impl().framesInFlight.load(), 0u);
    EXPECT_EQ(surface_->presentedCount(), 300u);
}

TEST_F(RendererFrames, TheRequestRecordRotatesInEveryPhase) {
    EXPECT_EQ(impl().requestBufferIndex, 0u);
    drawAt(1.0f);
    EXPECT_EQ(impl().requestBufferIndex, 1u);
    drawAt(50.0f);
    EXPECT_EQ(impl().requestBufferIndex, 2u);
    drawAt(150.0f);
    EXPECT_EQ(impl().requestBufferIndex, 0u);
    finishFrames();
}

TEST_F(RendererFrames, AFrameWithoutADrawableChangesNothing) {
    drawAt(1.0f);
    finishFrames();
    surface_->setDrawablesAvailable(false);
    for (int i = 0; i < 5; ++i) drawAt(1.0f);  // would block on the slots if it took them
    EXPECT_EQ(impl().requestBufferIndex, 1u);
    EXPECT_EQ(impl().framesInFlight.load(), 0u);
    EXPECT_EQ(surface_->presentedCount(), 1u);
    surface_->setDrawablesAvailable(true);
    for (int i = 0; i < 3; ++i) drawAt(1.0f);
    finishFrames();
    EXPECT_EQ(impl().requestBufferIndex, 1u);
    EXPECT_EQ(surface_->presentedCount(), 4u);
}

TEST_F(RendererFrames, TheDepthTargetIsRecreatedOnlyWhenTheDrawableSizeChanges) {
    drawAt(150.0f);
    const gpu::Texture* first = impl().depthTexture.get();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->width(), 32u);
    EXPECT_EQ(first->height(), 32u);
    EXPECT_EQ(first->format(), VK_FORMAT_D32_SFLOAT);
    drawAt(150.0f);
    drawAt(1.0f);
    EXPECT_EQ(impl().depthTexture.get(), first);
    EXPECT_EQ(impl().depthTexturesCreated, 1u);

    surface_->setDrawableSize(32, 20);  // the height alone changes
    renderer_->resize({1920, 1080});  // the depth target follows the drawable, not resize
    drawAt(150.0f);
    EXPECT_EQ(impl().depthTexture->width(), 32u);
    EXPECT_EQ(impl().depthTexture->height(), 20u);
    EXPECT_EQ(impl().depthTexturesCreated, 2u);
    drawAt(150.0f);
    EXPECT_EQ(impl().depthTexturesCreated, 2u);
    finishFrames();
}

TEST_F(RendererFrames, DestroyingTheRendererWaitsForItsFrames) {
    for (int i = 0; i < 30; ++i) drawAt(i % 2 ? 1.0f : 150.0f);
    renderer_.reset();  // frames still in flight: the validation layer would object to early frees
    EXPECT_EQ(queue_.pending(), 0u);
}

} // namespace
} // namespace brisvale::testing
