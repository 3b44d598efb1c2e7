#include "app/ShowTransport.h"

#include <algorithm>

namespace brisvale {
namespace {

FrameInfo heldFrame(double seconds) {
    FrameInfo frame;
    frame.timeSeconds = static_cast<float>(seconds);
    return frame;
}

} // namespace

ShowTransport::ShowTransport(ShowMusic& music, double frameSeconds) : music_(music), frameSeconds_(frameSeconds) {}

void ShowTransport::start(double startSeconds, float durationSeconds, float renderEndSeconds) {
    started_ = true;
    durationSeconds_ = durationSeconds;
    renderEndSeconds_ = renderEndSeconds;
    clock_.emplace(startSeconds);
    last_ = heldFrame(startSeconds);
}

void ShowTransport::musicReloaded(float durationSeconds, float renderEndSeconds) {
    durationSeconds_ = durationSeconds;
    renderEndSeconds_ = renderEndSeconds;
    if (!started_) {
        return;
    }
    if (paused_) {
        music_.pauseMusic();
    }
    moveTo(clock_ ? clock_->tick().timeSeconds : last_.timeSeconds);
}

FrameInfo ShowTransport::tick() {
    if (!clock_) {
        return last_;  // paused, held or not started: delta 0
    }
    const FrameInfo frame = clock_->tick();
    last_ = frame;
    if (renderEndSeconds_ > 0.0f && frame.timeSeconds >= renderEndSeconds_) {
        // This frame is drawn; the ones after it hold it.
        clock_.reset();
        paused_ = true;
        holdingEnd_ = true;
        last_.deltaSeconds = 0.0f;
    }
    return frame;
}

void ShowTransport::togglePause() {
    if (!started_) {
        return;
    }
    if (holdingEnd_) {
        goToStart();
        return;
    }
    if (paused_) {
        paused_ = false;
        music_.resumeMusic();
        clock_.emplace(syncedTime(last_.timeSeconds));
        return;
    }
    const double now = clock_->tick().timeSeconds;
    music_.pauseMusic();
    paused_ = true;
    clock_.reset();
    last_ = heldFrame(syncedTime(now));
}

void ShowTransport::moveBy(double seconds) {
    if (started_) {
        moveTo(static_cast<double>(last_.timeSeconds) + seconds);
    }
}

void ShowTransport::step(int frames) {
    if (started_ && paused_) {
        moveTo(static_cast<double>(last_.timeSeconds) + frames * frameSeconds_);
    }
}

void ShowTransport::goToStart() {
    if (!started_) {
        return;
    }
    if (holdingEnd_) {
        paused_ = false;
    }
    moveTo(0.0);
}

void ShowTransport::moveTo(double target) {
    const double latest = renderEndSeconds_ > 0.0f ? renderEndSeconds_ : kLatestSeconds;
    target = std::clamp(target, 0.0, latest);
    // A player that ran out comes back paused from a seek: a playing show resumes it.
    const bool revive = !paused_ && music_.musicDone();
    music_.seekMusic(target);
    if (revive) {
        music_.resumeMusic();
    }
    holdingEnd_ = false;
    const double time = syncedTime(target);
    last_ = heldFrame(time);
    if (!paused_) {
        clock_.emplace(time);
    }
}

double ShowTransport::syncedTime(double target) {
    // Past the music's end its player says nothing useful (it sits on its last frame).
    if (target < durationSeconds_) {
        const double music = music_.musicSeconds();
        if (music >= 0.0) {
            return music;
        }
    }
    return target;
}

} // namespace brisvale
