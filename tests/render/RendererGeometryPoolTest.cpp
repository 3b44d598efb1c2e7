// The vertex pool on lavapipe: growth from the compute function's feedback, by powers of two up
// to the cap, once per shortage, never in frames that do not read the feedback.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

#include <gtest/gtest.h>

namespace brisvale::testing {
namespace {

// The marker shader requests uint(showDurationSeconds) vertices; renderEndSeconds 2 forces the
// overflow flag to 0 and 3 forces it to 1.
constexpr float kForceNoOverflow = 2.0f;
constexpr float kForceOverflow = 3.0f;

class RendererGeometryPool : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, 16, 16);
        renderer_ = makeRenderer(*surface_);
    }
    void TearDown() override {
        renderer_.reset();
        GpuTest::TearDown();
    }
    Renderer::Impl& impl() { return RendererTesting::impl(*renderer_); }
    std::uint32_t capacity() { return impl().vertexCapacity.load(); }

    void drawRequesting(float requested, float t = 1.0f, float overflowMode = 0.0f) {
        FrameInfo frame;
        frame.timeSeconds = t;
        frame.showDurationSeconds = requested;
        frame.renderEndSeconds = overflowMode;
        renderer_->draw(frame);
    }
    // Draws one frame requesting `requested`, waits for it and runs the posted tasks; returns
    // what the renderer printed.
    std::string frameThenGrowth(float requested, float t = 1.0f, float overflowMode = 0.0f) {
        ::testing::internal::CaptureStderr();
        drawRequesting(requested, t, overflowMode);
        finishFrames();
        queue_.drain();
        return ::testing::internal::GetCapturedStderr();
    }

    std::unique_ptr<gpu::OffscreenSurface> surface_;
    std::unique_ptr<Renderer> renderer_;
};

TEST_F(RendererGeometryPool, GrowsThroughThePowersOfTwoToTheCap) {
    EXPECT_EQ(frameThenGrowth(5000), "Grew GPU vertex pool to 8192 vertices\n");
    EXPECT_EQ(capacity(), 8192u);
    EXPECT_EQ(impl().generatedVertexBuffer->size(), 8192u * 28u);
    EXPECT_EQ(frameThenGrowth(16384), "Grew GPU vertex pool to 16384 vertices\n");  // a power is its own
    EXPECT_EQ(frameThenGrowth(20000), "Grew GPU vertex pool to 32768 vertices\n");
    EXPECT_EQ(frameThenGrowth(32769), "Grew GPU vertex pool to 65536 vertices\n");
    EXPECT_EQ(frameThenGrowth(100000), "Grew GPU vertex pool to 131072 vertices\n");
    EXPECT_EQ(frameThenGrowth(140000), "Grew GPU vertex pool to 262144 vertices\n");
    EXPECT_EQ(capacity(), 262144u);
    EXPECT_EQ(impl().generatedVertexBuffer->size(), 7340032u);
}

TEST_F(RendererGeometryPool, ExactlyTheCapacityIsEnough) {
    EXPECT_EQ(frameThenGrowth(4096), "");
    EXPECT_EQ(capacity(), 4096u);
    EXPECT_EQ(frameThenGrowth(4097), "Grew GPU vertex pool to 8192 vertices\n");
    EXPECT_EQ(capacity(), 8192u);
}

TEST_F(RendererGeometryPool, ALargeRequestGoesStraightToTheCapAndStopsThere) {
    frameThenGrowth(5000);
    EXPECT_EQ(frameThenGrowth(300000), "Grew GPU vertex pool to 262144 vertices\n");
    EXPECT_EQ(capacity(), 262144u);
    // At the cap the frames use the plain handler: nothing is read, posted or printed.
    EXPECT_EQ(frameThenGrowth(1000000, 1.0f, kForceOverflow), "");
    EXPECT_EQ(frameThenGrowth(1000000, 150.0f, kForceOverflow), "");
    EXPECT_EQ(queue_.pending(), 0u);
    EXPECT_EQ(capacity(), 262144u);
}

TEST_F(RendererGeometryPool, TheGrowthRuleOnTheMainThread) {
    ::testing::internal::CaptureStderr();
    impl().growGeometryBuffersIfNeeded(3000000000u);  // its power of two does not fit in 32 bits
    EXPECT_EQ(capacity(), 262144u);
    impl().growGeometryBuffersIfNeeded(262145);
    impl().growGeometryBuffersIfNeeded(4000000000u);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Grew GPU vertex pool to 262144 vertices\n");
}

TEST_F(RendererGeometryPool, RepeatedShortagesOfFramesInFlightGrowOnce) {
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) drawRequesting(6000);
    finishFrames();
    EXPECT_EQ(queue_.pending(), 3u);  // every frame saw the shortage
    queue_.drain();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Grew GPU vertex pool to 8192 vertices\n");
    EXPECT_EQ(capacity(), 8192u);
}

// Growth needs the overflow flag, a request above the capacity, and a phase with a compute pass.
TEST_F(RendererGeometryPool, OnlyAFlaggedShortageInAComputePhaseGrows) {
    EXPECT_EQ(frameThenGrowth(100000, 1.0f, kForceNoOverflow), "");
    EXPECT_EQ(frameThenGrowth(4000, 1.0f, kForceOverflow), "");
    EXPECT_EQ(frameThenGrowth(100000, 50.0f), "");
    EXPECT_EQ(capacity(), 4096u);
    EXPECT_EQ(frameThenGrowth(9000, 142.0f), "Grew GPU vertex pool to 16384 vertices\n");
}

TEST_F(RendererGeometryPool, FramesEncodedBeforeTheGrowthKeepTheirBuffers) {
    drawRequesting(6000);
    std::weak_ptr<gpu::Buffer> oldPool = impl().generatedVertexBuffer;
    finishFrames();
    queue_.drain();  // grows while the old pool is still held by its frame's slot
    EXPECT_NE(impl().generatedVertexBuffer, oldPool.lock());
    // The old pool goes once its slot is used again.
    for (int i = 0; i < 3; ++i) drawRequesting(6000);
    finishFrames();
    EXPECT_TRUE(oldPool.expired());
}

TEST_F(RendererGeometryPool, AGrowthPostedAfterTheRendererIsGoneDoesNothing) {
    drawRequesting(6000);
    finishFrames();
    ASSERT_EQ(queue_.pending(), 1u);
    renderer_.reset();
    queue_.drain();  // must not touch the destroyed renderer
    SUCCEED();
}

} // namespace
} // namespace brisvale::testing
