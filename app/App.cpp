#include "app/App.h"

#include <cstdint>

namespace brisvale {
namespace {

// Nanoseconds go to float first and are divided in float, so that every frame's
// time rounds the same way whatever the build's floating-point settings.
float seconds(std::chrono::steady_clock::duration d) {
    const std::int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
    return static_cast<float>(ns) / 1000000000.0f;
}

} // namespace

App::App() : start_(Clock::now()), last_(start_) {}

App::App(double startSeconds) : App() {
    start_ -= std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(startSeconds));
}

FrameInfo App::tick() {
    const Clock::time_point now = Clock::now();
    FrameInfo frame;
    frame.timeSeconds = seconds(now - start_);
    frame.deltaSeconds = seconds(now - last_);
    last_ = now;
    return frame;
}

float renderEndSecondsForAudio(float durationSeconds) {
    // Two additions, not one of 3.75: they can differ in the last bit.
    volatile float withTail = durationSeconds + 3.0f;
    return withTail + 0.75f;
}

} // namespace brisvale
