// The frame pump's two paths without a platform: a display tick that finds a frame already
// waiting (the common case when frames are slow: one lock, one flag), and a whole
// tick -> queued task -> drawFrame round with a renderer that draws nothing.
#include <benchmark/benchmark.h>

#include <deque>
#include <functional>

#include "app/RenderViewLogic.h"

namespace brisvale {
namespace {

class NullView final : public RenderViewLogic {
public:
    ~NullView() { tearDown(); }
    std::deque<std::function<void()>> queue;

protected:
    bool windowIsFullScreen() const override { return true; }
    double windowBackingScale() const override { return 1.0; }
    double mainScreenBackingScale() const override { return 1.0; }
    DrawableSize boundsInPoints() const override { return {1920.0, 1080.0}; }
    void setLayerDrawableSize(DrawableSize) override {}
    void postToMainThread(std::function<void()> task) override { queue.push_back(std::move(task)); }
    void terminateApplication() override {}
    void toggleWindowFullScreen() override {}
    void passKeyOn(const KeyPress&) override {}
    void hideSystemCursor() override {}
    void showSystemCursor() override {}
    void systemLog(std::string_view) override {}
    bool hasRenderer() const override { return true; }
    void resizeRenderer(SurfaceSize) override {}
    void drawWithRenderer(const FrameInfo& frame) override { benchmark::DoNotOptimize(frame); }
    std::span<const std::byte> musicBytes() const override { return {}; }
    int loadSong(void*, std::int64_t) override { return -1; }
    double songDuration() override { return 0.0; }
    bool createPlayer() override { return false; }
    int startPlayer() override { return -1; }
    int seekPlayer(double) override { return -1; }
    bool hasPlayer() const override { return false; }
    void destroyPlayer() override {}
    void destroySong() override {}
    void startDisplayTimer() override {}
    bool hasDisplayTimer() const override { return false; }
    void stopAndReleaseDisplayTimer() override {}
};

void BM_TickWhileAFrameWaits(benchmark::State& state) {
    NullView view;
    view.startRendering();
    view.scheduleDrawFrame();  // one frame waits from here on
    for (auto _ : state) {
        view.scheduleDrawFrame();
    }
    benchmark::DoNotOptimize(view.queue.size());
}
BENCHMARK(BM_TickWhileAFrameWaits);

void BM_TickQueueAndDrawOneFrame(benchmark::State& state) {
    NullView view;
    view.startRendering();
    for (auto _ : state) {
        view.scheduleDrawFrame();
        auto task = std::move(view.queue.front());
        view.queue.pop_front();
        task();
    }
}
BENCHMARK(BM_TickQueueAndDrawOneFrame);

} // namespace
} // namespace brisvale

BENCHMARK_MAIN();
