#pragma once

// The application delegate: builds the one window and its render view, sends the window into
// full screen shortly after launch, starts the show when full screen has been reached, keeps the
// cursor hidden only while the show runs in front, and reports a failed launch. The event loop
// (main.cpp) hands it each SDL event it cares about. Main thread only.

#include <SDL2/SDL.h>

#include <functional>
#include <memory>

#include "app/CommandLine.h"
#include "app/FullScreenEntry.h"
#include "app/MainThreadQueue.h"
#include "app/platform/MetalView.h"
#include "app/platform/WindowManagerState.h"

namespace brisvale {

// The shared application: the one quit request the whole program raises.
class Application {
public:
    void terminate() { terminating_ = true; }
    bool isTerminating() const { return terminating_; }

private:
    bool terminating_ = false;
};

// The application's only window. It owns its content view, which goes before the window does.
class Window {
public:
    explicit Window(SDL_Window* handle) : handle_(handle) {}
    SDL_Window* handle() const { return handle_.get(); }
    MetalView* contentView() const { return contentView_.get(); }
    void setContentView(std::unique_ptr<MetalView> view);

private:
    struct Destroy {
        void operator()(SDL_Window* w) const { SDL_DestroyWindow(w); }
    };
    std::unique_ptr<SDL_Window, Destroy> handle_;
    std::unique_ptr<MetalView> contentView_;
};

// When the show starts. The player started without arguments goes full screen by itself and
// starts the show when full screen has been reached (a window that never gets there never starts
// it); a windowed mode starts it as soon as the window is shown and asks for no full screen.
enum class ShowStart { OnFullScreenEntry, OnWindowShown };

class AppDelegate {
public:
    // `options` is the command line: where the show comes from and how it starts. The defaults
    // are the player started without arguments.
    AppDelegate(Application& application, MainThreadQueue& mainQueue, PlayerOptions options = {});
    ~AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    // Application and window notifications.
    void applicationDidFinishLaunching();
    void enterInitialFullscreen();
    void windowDidEnterFullScreen();
    bool applicationShouldTerminateAfterLastWindowClosed() const { return true; }
    void applicationWillTerminate();
    void applicationDidResignActive();
    void applicationDidBecomeActive();

    // SDL events, translated into the notifications above and the view's operations.
    void handleWindowEvent(const SDL_WindowEvent& event);
    void handleKeyDown(const SDL_KeyboardEvent& event);
    void handleSystemEvent(const SDL_SysWMmsg& message);

    // 0, or 1 after a failed launch or a frame that could not be drawn.
    int exitStatus() const;
    // The render view, once the launch has built it.
    const MetalView* contentView() const { return _window ? _window->contentView() : nullptr; }

private:
    void toggleFullScreen();
    void noteFullScreenState(bool resized = false);

    Application& application_;
    MainThreadQueue& mainQueue_;
    const PlayerOptions options_;
    const ShowStart showStart_;
    bool launchFailed_ = false;
    std::unique_ptr<WindowManagerState> windowManagerState_;
    FullScreenEntry fullScreenEntry_;
    bool settleCheckPending_ = false;  // a delayed look at a full-screen state not yet settled

    bool _didEnterInitialFullscreen = false;
    std::unique_ptr<Window> _window;
};

} // namespace brisvale
