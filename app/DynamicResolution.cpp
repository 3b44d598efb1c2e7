#include "app/DynamicResolution.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace brisvale {
namespace {

constexpr double kOverShare = 0.90;    // of the interval: above it, down
constexpr double kTargetShare = 0.75;  // what a frame should take after a change
constexpr double kStepCost = 1.2599210498948732;  // 2^(1/3): a step up's pixels, relative
// Readings this far over the interval need no full window to be judged.
constexpr double kFarOverShare = 2.0;
// Windows after a step up in which coming back down counts as the step's failure.
constexpr int kWatchWindows = 2;

} // namespace

float DynamicResolution::scaleOfStep(int step) {
    // 2^(-step / 6): exactly 1, 0.5 and 0.25 at steps 0, 6 and 12.
    return static_cast<float>(std::exp2(-static_cast<double>(std::clamp(step, 0, kSteps - 1)) / 6.0));
}

DynamicResolution::DynamicResolution(double frameIntervalSeconds) : interval_(1.0 / 60.0) {
    setFrameInterval(frameIntervalSeconds);
}

void DynamicResolution::setFrameInterval(double seconds) {
    if (seconds > 0.0 && std::isfinite(seconds)) interval_ = seconds;
}

float DynamicResolution::frameDrawn(double gpuSeconds) {
    ++framesPerStep_[static_cast<std::size_t>(step_)];
    // No frame has completed yet (or a reading that means nothing).
    if (!(gpuSeconds > 0.0) || !std::isfinite(gpuSeconds)) return scale();
    if (settle_ > 0) {
        --settle_;
        return scale();
    }
    window_[samples_++] = gpuSeconds;
    latest_[latestCount_++ % kFarOverSamples] = gpuSeconds;
    // The latest few far over the interval are judged on their own, at once.
    farOverInARow_ = gpuSeconds > kFarOverShare * interval_ ? farOverInARow_ + 1 : 0;
    if (farOverInARow_ >= kFarOverSamples) {
        judge(latest_.data(), kFarOverSamples);
    } else if (samples_ == kWindow) {
        judge(window_.data(), kWindow);
    }
    return scale();
}

void DynamicResolution::judge(const double* readings, std::size_t n) {
    samples_ = 0;
    // A handful of readings: sorted by insertion.
    std::array<double, kWindow> sorted{};
    for (std::size_t i = 0; i < n; ++i) {
        sorted[i] = readings[i];
        for (std::size_t j = i; j > 0 && sorted[j - 1] > sorted[j]; --j) std::swap(sorted[j - 1], sorted[j]);
    }
    // The median, so that one hitch moves nothing; and the next-to-slowest of a full window,
    // so that a step up is taken only where nearly every frame would fit.
    const double median = n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2.0;
    const double slow = sorted[n - 1 - n / 8];
    if (blockedWindows_ > 0) --blockedWindows_;

    const double target = kTargetShare * interval_;
    if (median > kOverShare * interval_) {
        if (step_ == kSteps - 1) return;
        // Pixels go with the square of the scale.
        const double wanted = scale() * std::sqrt(target / median);
        int next = step_ + 1;
        while (next < kSteps - 1 && scaleOfStep(next) > wanted) ++next;
        if (risenWindowsAgo_ >= 0) {
            // The last step up was one too many: back to where frames fitted, and this scale
            // is not tried again for a while, longer each time.
            failedRises_ = std::min(failedRises_ + 1, kMaxFailedRises);
            failedStep_ = step_;
            blockedWindows_ = kRetryWindows << (failedRises_ - 1);
            next = risenFrom_;
        }
        risenWindowsAgo_ = -1;
        moveTo(next);
        return;
    }
    if (risenWindowsAgo_ >= 0 && ++risenWindowsAgo_ >= kWatchWindows) {
        risenWindowsAgo_ = -1;  // the step up held
        if (failedStep_ >= 0 && step_ <= failedStep_) {
            // Where a step up failed before, frames now fit: the scene has become cheaper.
            failedStep_ = -1;
            failedRises_ = 0;
        }
    }
    // Up as far as even the slow frames would fit. The fixed part of a frame's cost does not grow
    // with its pixels, so this errs on the safe side. A scale found too slow is tried again, once
    // it may be, on its own: no further than that.
    const int highest = failedStep_ < 0 ? 0 : blockedWindows_ > 0 ? failedStep_ + 1 : failedStep_;
    if (step_ <= highest || slow * kStepCost > target) return;
    const double wanted = scale() * std::sqrt(target / slow);
    int next = step_ - 1;
    while (next > highest && scaleOfStep(next - 1) <= wanted) --next;
    risenFrom_ = step_;
    moveTo(next);
    risenWindowsAgo_ = 0;
}

void DynamicResolution::moveTo(int step) {
    if (step == step_) return;
    step_ = step;
    ++changes_;
    settle_ = kSettleFrames;
    samples_ = 0;
    farOverInARow_ = 0;
}

} // namespace brisvale
