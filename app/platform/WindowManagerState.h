#pragma once

// The window manager's own word on whether a window is in full screen. SDL 2 sets its full-screen
// flag, and the display's size, the moment full screen is asked for, whatever the window manager
// then does; only the window manager's state (_NET_WM_STATE on X11) tells that it was granted.
// Where the video driver is not X11, or no window manager runs, SDL's flag is all there is.
// Main thread only.

#include <SDL2/SDL.h>

#include <memory>

namespace brisvale {

class WindowManagerState {
public:
    // Asks SDL for the window system's events (SDL_SYSWMEVENT), where it can tell about the state.
    explicit WindowManagerState(SDL_Window* window);
    ~WindowManagerState();
    WindowManagerState(const WindowManagerState&) = delete;
    WindowManagerState& operator=(const WindowManagerState&) = delete;

    bool fullScreen() const;
    // Whether this window-system event may have changed the state.
    bool mayHaveChanged(const SDL_SysWMmsg& message) const;

private:
    bool windowManagerRuns() const;

    struct X11;
    SDL_Window* window_;
    std::unique_ptr<X11> x11_;  // null where the video driver is not X11
};

} // namespace brisvale
