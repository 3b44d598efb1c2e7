#pragma once

#include <chrono>

#include "render/FrameInfo.h"

namespace brisvale {

// The show clock: monotonic time since the show started. Main thread only.
class App {
public:
    App();
    // A clock that reads `startSeconds` at once, as if the show had begun that long ago; the
    // first tick's delta is the time since construction only.
    explicit App(double startSeconds);

    // Advances the clock by one frame. Fills timeSeconds and deltaSeconds;
    // the other two fields are 0 (the render view fills them).
    FrameInfo tick();

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_;
    Clock::time_point last_;
};

// The show time at which the application quits for a song of the given length.
float renderEndSecondsForAudio(float durationSeconds);

} // namespace brisvale
