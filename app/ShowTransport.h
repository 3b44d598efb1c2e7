#pragma once

// Author mode's show time: the show clock played from any time, paused, stepped, moved and held
// at the show's end, with the music following every move. Plain logic on the main thread; the
// player's music is reached through ShowMusic.
//
// The show clock (App) is not changed for this: playing from a time is a new App started at that
// time, and a pause is the last frame's time held with no delta. After every move the clock is
// set from where the music says it is (its position after the seek), so that picture and sound
// stay in step; where the music cannot say (none loaded, or a time past its end) the clock takes
// the time asked for.

#include <optional>

#include "app/App.h"
#include "render/FrameInfo.h"

namespace brisvale {

// The music's transport, as the player's audio library offers it. Failures are answered, never
// raised: the show goes on silent.
class ShowMusic {
public:
    virtual bool pauseMusic() = 0;
    virtual bool resumeMusic() = 0;
    // A playing player keeps playing; a paused, finished or stopped one waits, paused, there.
    virtual bool seekMusic(double seconds) = 0;
    // The playback position in seconds; below 0 when there is none (no player, or it ran out).
    virtual double musicSeconds() = 0;
    // The player has run out (or there is none): a seek revives it, paused.
    virtual bool musicDone() = 0;

protected:
    ~ShowMusic() = default;
};

class ShowTransport {
public:
    // Show times are 32-bit floats: past a day they step by several milliseconds.
    static constexpr double kLatestSeconds = 86400.0;

    // `frameSeconds`: one frame of the show's output rate, the length of a step.
    ShowTransport(ShowMusic& music, double frameSeconds);

    // The show starts playing at `startSeconds` (the music already started and sought there).
    // `renderEndSeconds` above 0 is where the show holds; 0 is no end.
    void start(double startSeconds, float durationSeconds, float renderEndSeconds);
    // The music was loaded again (with these lengths): it is brought to the show's time, paused
    // when the show is.
    void musicReloaded(float durationSeconds, float renderEndSeconds);
    void setFrameSeconds(double frameSeconds) { frameSeconds_ = frameSeconds; }

    // One frame's time (FrameInfo's first two fields). Playing: the clock's tick; the first frame
    // at or past the end is handed out and then held. Paused or held: the last time, delta 0.
    FrameInfo tick();

    // Space: pause or resume; at the held end, play again from the beginning.
    void togglePause();
    // Left and Right: that far from the show's time, within [0, end]; paused stays paused.
    void moveBy(double seconds);
    // "," and ".": while paused, that many frames back or on; nothing while playing.
    void step(int frames);
    // Home: to 0; paused stays paused, the held end plays again.
    void goToStart();

    bool started() const { return started_; }
    bool paused() const { return paused_; }
    bool holdingEnd() const { return holdingEnd_; }
    // The time of the frame handed out last (or held).
    float timeSeconds() const { return last_.timeSeconds; }

private:
    void moveTo(double target);
    double syncedTime(double target);

    ShowMusic& music_;
    double frameSeconds_;
    float durationSeconds_ = 0.0f;
    float renderEndSeconds_ = 0.0f;
    bool started_ = false;
    bool paused_ = false;
    bool holdingEnd_ = false;
    std::optional<App> clock_;  // while playing
    FrameInfo last_;            // handed out last; held while paused
};

} // namespace brisvale
