// The application delegate on SDL2: launch, activation and termination, SDL events.
//
// [SECTION] Launch
// [SECTION] Activation and termination
// [SECTION] SDL events

#include "app/platform/AppDelegate.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "app/KeyBindings.h"
#include "app/platform/SystemLog.h"

namespace brisvale {
namespace {

constexpr int kWindowWidth = 1280;
constexpr int kWindowHeight = 720;
constexpr const char* kWindowTitle = "Brisvale Metal";
constexpr std::chrono::milliseconds kInitialFullscreenDelay{250};

KeyPress keyPressFrom(const SDL_KeyboardEvent& event) {
    KeyPress key;
    const SDL_Keycode sym = event.keysym.sym;
    if (sym == SDLK_ESCAPE) {
        key.code = KeyCode::Escape;
        key.charactersIgnoringModifiers = "\x1b";
    } else if (sym == SDLK_RETURN) {
        key.code = KeyCode::Return;
        key.charactersIgnoringModifiers = "\r";
    } else if (sym == SDLK_LEFT) {
        key.code = KeyCode::Left;
    } else if (sym == SDLK_RIGHT) {
        key.code = KeyCode::Right;
    } else if (sym == SDLK_HOME) {
        key.code = KeyCode::Home;
    } else if (sym >= 0x20 && sym < 0x7f) {
        key.charactersIgnoringModifiers = std::string(1, static_cast<char>(sym));
    }
    // The Command modifier is Ctrl, or Super where the desktop passes it through.
    key.command = (event.keysym.mod & (KMOD_CTRL | KMOD_GUI)) != 0;
    key.shift = (event.keysym.mod & KMOD_SHIFT) != 0;
    return key;
}

} // namespace

void Window::setContentView(std::unique_ptr<MetalView> view) {
    contentView_ = std::move(view);
    if (contentView_) {
        contentView_->viewDidMoveToWindow(handle_.get());
    }
}

AppDelegate::AppDelegate(Application& application, MainThreadQueue& mainQueue, PlayerOptions options)
    : application_(application),
      mainQueue_(mainQueue),
      options_(std::move(options)),
      showStart_(options_.windowed ? ShowStart::OnWindowShown : ShowStart::OnFullScreenEntry) {}

AppDelegate::~AppDelegate() = default;

// ---------------------------------------------------------------------------------------------
// [SECTION] Launch

void AppDelegate::applicationDidFinishLaunching() {
    try {
        // Created hidden: a launch that fails never shows it.
        const Uint32 flags = SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI | SDL_WINDOW_HIDDEN;
        SDL_Window* handle = SDL_CreateWindow(kWindowTitle, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                              kWindowWidth, kWindowHeight, flags | SDL_WINDOW_VULKAN);
        if (handle == nullptr) {
            // SDL refuses a Vulkan window where there is no Vulkan at all. The view then finds no
            // device, and the renderer reports that in its own words.
            handle = SDL_CreateWindow(kWindowTitle, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, kWindowWidth,
                                      kWindowHeight, flags);
        }
        if (handle == nullptr) {
            throw std::runtime_error(std::string("Failed to create window: ") + SDL_GetError());
        }
        _window = std::make_unique<Window>(handle);
        windowManagerState_ = std::make_unique<WindowManagerState>(handle);

        // Stage A of the launch; may raise.
        auto view = std::make_unique<MetalView>(ViewFrame{0, 0, kWindowWidth, kWindowHeight}, handle, mainQueue_,
                                                [this] { application_.terminate(); }, options_);
        _window->setContentView(std::move(view));

        SDL_SetWindowPosition(handle, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED);
        SDL_ShowWindow(handle);
        SDL_RaiseWindow(handle);
        if (showStart_ == ShowStart::OnWindowShown) {
            _window->contentView()->startRendering();
        } else {
            mainQueue_.postAfter(kInitialFullscreenDelay, [this] { enterInitialFullscreen(); });
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Launch failed: %s\n", e.what());
        std::fflush(stderr);
        systemLogOnly(std::string("Launch failed: ") + e.what());
        launchFailed_ = true;
        application_.terminate();
    }
}

void AppDelegate::enterInitialFullscreen() {
    if (_didEnterInitialFullscreen || !_window) {
        return;
    }
    // Set before the request, so that a second call never takes the window out again.
    _didEnterInitialFullscreen = true;
    SDL_RaiseWindow(_window->handle());
    toggleFullScreen();
}

void AppDelegate::windowDidEnterFullScreen() {
    MetalView* view = _window ? _window->contentView() : nullptr;
    if (view != nullptr && showStart_ == ShowStart::OnFullScreenEntry) {
        view->startRendering();
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Activation and termination

void AppDelegate::applicationWillTerminate() {
    if (MetalView* view = _window ? _window->contentView() : nullptr) {
        view->showCursorIfNeeded();
    }
}

void AppDelegate::applicationDidResignActive() {
    if (MetalView* view = _window ? _window->contentView() : nullptr) {
        view->showCursorIfNeeded();
    }
}

void AppDelegate::applicationDidBecomeActive() {
    MetalView* view = _window ? _window->contentView() : nullptr;
    if (view != nullptr && view->isRenderingStarted()) {
        view->hideCursorIfNeeded();
    }
}

int AppDelegate::exitStatus() const {
    if (launchFailed_) {
        return 1;
    }
    const MetalView* view = _window ? _window->contentView() : nullptr;
    return view != nullptr && view->drawFailed() ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] SDL events

void AppDelegate::handleWindowEvent(const SDL_WindowEvent& event) {
    if (!_window || event.windowID != SDL_GetWindowID(_window->handle())) {
        return;
    }
    bool resized = false;
    switch (event.event) {
    case SDL_WINDOWEVENT_CLOSE:
        // The one window closed is the last one.
        if (applicationShouldTerminateAfterLastWindowClosed()) {
            application_.terminate();
        }
        return;
    case SDL_WINDOWEVENT_SIZE_CHANGED:
        resized = true;
        if (MetalView* view = _window->contentView()) {
            view->setFrameSize(event.data1, event.data2);
        }
        break;
    case SDL_WINDOWEVENT_FOCUS_GAINED:
        applicationDidBecomeActive();
        break;
    case SDL_WINDOWEVENT_FOCUS_LOST:
        applicationDidResignActive();
        break;
    default:
        break;
    }
    noteFullScreenState(resized);
}

void AppDelegate::handleKeyDown(const SDL_KeyboardEvent& event) {
    MetalView* view = _window ? _window->contentView() : nullptr;
    if (view == nullptr) {
        return;
    }
    const KeyPress key = keyPressFrom(event);
    // The menu's key equivalents see the key before the view does.
    switch (menuKeyEquivalentFor(key)) {
    case KeyAction::Terminate:
        application_.terminate();
        return;
    case KeyAction::ToggleFullScreen:
        toggleFullScreen();
        return;
    case KeyAction::PassOn:
        break;
    }
    view->keyDown(key);
}

void AppDelegate::handleSystemEvent(const SDL_SysWMmsg& message) {
    if (windowManagerState_ && windowManagerState_->mayHaveChanged(message)) {
        noteFullScreenState();
    }
}

void AppDelegate::toggleFullScreen() {
    SDL_Window* window = _window->handle();
    const bool fullScreen = (SDL_GetWindowFlags(window) & SDL_WINDOW_FULLSCREEN) != 0;
    if (SDL_SetWindowFullscreen(window, fullScreen ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP) != 0) {
        systemLog(std::string("Toggle full screen failed: ") + SDL_GetError());
    }
    noteFullScreenState();
}

// SDL reports full screen, and the display's size, the moment it is asked for; whether and at
// what size the window manager grants it shows later, in its state and a resize (FullScreenEntry).
void AppDelegate::noteFullScreenState(bool resized) {
    SDL_Window* window = _window->handle();
    const bool requested = (SDL_GetWindowFlags(window) & SDL_WINDOW_FULLSCREEN) != 0;
    if (fullScreenEntry_.update(requested, resized, windowManagerState_->fullScreen(), FullScreenEntry::Clock::now())) {
        windowDidEnterFullScreen();
        return;
    }
    // A state that holds without a resize counts after the settle time: look again then.
    const auto settlesAt = fullScreenEntry_.settlesAt();
    if (settlesAt && !settleCheckPending_) {
        settleCheckPending_ = true;
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*settlesAt - FullScreenEntry::Clock::now());
        mainQueue_.postAfter(std::max(wait, std::chrono::milliseconds{0}), [this] {
            settleCheckPending_ = false;
            noteFullScreenState();
        });
    }
}

} // namespace brisvale
