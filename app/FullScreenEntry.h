#pragma once

#include <chrono>
#include <optional>

namespace brisvale {

// When a window counts as having entered full screen. The window manager answers a request by
// setting the window's full-screen state and sizing the window: to the display's size, or to
// another where panels, tiling or scaling take their share. The entry counts once the state is
// on and the window has been resized since the request, or once the state has held for the
// settle time without a resize (a window manager that keeps the size). Without the state it
// never counts. Plain logic; the delegate feeds it what the window system reports.
class FullScreenEntry {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kSettleTime{300};

    // What the window system reports now:
    //   requested  full screen has been asked for (SDL's flag: set the moment it is asked)
    //   resized    the window's size has just changed
    //   state      the window manager has put the window in its full-screen state
    // Returns true exactly when the window has just entered full screen.
    bool update(bool requested, bool resized, bool state, Clock::time_point now);

    // While the state holds but has not yet counted: when to call update again.
    std::optional<Clock::time_point> settlesAt() const;

private:
    bool requested_ = false;
    bool resizedSinceRequest_ = false;
    bool entered_ = false;
    std::optional<Clock::time_point> stateSince_;
};

} // namespace brisvale
