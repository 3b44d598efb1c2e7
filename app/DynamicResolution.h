#pragma once

// The render scale of `--scale auto`: the scene is drawn at a fraction of the drawable's size, so
// that a frame's GPU time fits the display's interval. Plain logic, told every drawn frame's
// reading of the GPU time; the view hands its answer to the renderer.
//
// The scale moves on a ladder from 1 down to 0.25, each step a fifth fewer pixels (a sixth of an
// octave per side). It starts at the bottom, so that a slow GPU never has to draw full-size
// frames first (three of them would be in flight before the first time is known). A frame is
// taken to cost in proportion to its pixels. Every few frames the times read since the last
// change are judged:
// - their median above 90 % of the interval: down at once, as far as the cost says a frame then
//   takes 75 % of it (at least one step);
// - otherwise up, as far as even the slow frames among them would take 75 % there.
// A step up costs a quarter more, so a scale that fits stays put: the gap between 75 % and 90 %
// is the hysteresis. A step up that turns out too slow after all is not tried again for a while,
// twice as long after each such failure, so that a cost the model misjudges cannot make the
// scale go back and forth.

#include <array>
#include <cstddef>
#include <cstdint>

namespace brisvale {

class DynamicResolution {
public:
    static constexpr int kSteps = 13;  // 1 down to 0.25
    static float scaleOfStep(int step);

    explicit DynamicResolution(double frameIntervalSeconds = 1.0 / 60.0);

    // The display's interval, when it is known (the display timer's rate).
    void setFrameInterval(double seconds);

    // Once per drawn frame, with the GPU time of the most recent completed frame (0 while there
    // is none). Returns the scale of the next frame.
    float frameDrawn(double gpuSeconds);

    float scale() const { return scaleOfStep(step_); }
    int step() const { return step_; }
    // Frames drawn at each step, and how often the scale changed (for --frame-pump-stats).
    const std::array<std::uint64_t, kSteps>& framesPerStep() const { return framesPerStep_; }
    std::uint64_t changes() const { return changes_; }

private:
    // Frames in flight: the times read in the first frames after a change are of frames drawn
    // before it.
    static constexpr int kSettleFrames = 3;
    static constexpr std::size_t kWindow = 8;
    static constexpr std::size_t kFarOverSamples = 3;
    static constexpr int kRetryWindows = 4;
    static constexpr int kMaxFailedRises = 6;  // the wait grows to 128 windows

    void judge(const double* readings, std::size_t count);
    void moveTo(int step);

    double interval_;
    int step_ = kSteps - 1;
    int settle_ = kSettleFrames;
    std::array<double, kWindow> window_{};  // readings since the last judgement
    std::size_t samples_ = 0;
    std::array<double, kFarOverSamples> latest_{};  // the latest readings, in a ring
    std::size_t latestCount_ = 0;
    std::size_t farOverInARow_ = 0;  // readings in a row far over the interval, since the last change

    int risenWindowsAgo_ = -1;  // windows judged since the last step up; -1: none to watch
    int risenFrom_ = 0;         // the step it left
    int failedRises_ = 0;       // steps up that had to come back down, since frames last fit there
    int failedStep_ = -1;       // where the last of them went
    int blockedWindows_ = 0;    // until then, no step up reaches it

    std::array<std::uint64_t, kSteps> framesPerStep_{};
    std::uint64_t changes_ = 0;
};

} // namespace brisvale
