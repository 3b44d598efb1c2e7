#include "app/platform/WindowManagerState.h"

#include <SDL2/SDL_syswm.h>
#include <X11/Xatom.h>

namespace brisvale {

struct WindowManagerState::X11 {
    Display* display = nullptr;
    Window window = 0;
    Atom state = None;
    Atom fullScreen = None;
    Atom supportingWindowManager = None;
};

namespace {

// The one window a property of type WINDOW names, or None.
Window windowProperty(Display* display, Window window, Atom property) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    Window named = None;
    if (XGetWindowProperty(display, window, property, 0, 1, False, XA_WINDOW, &type, &format, &count, &remaining,
                           &data) == Success &&
        data != nullptr && type == XA_WINDOW && format == 32 && count == 1) {
        named = *reinterpret_cast<const Window*>(data);
    }
    if (data != nullptr) {
        XFree(data);
    }
    return named;
}

} // namespace

WindowManagerState::WindowManagerState(SDL_Window* window) : window_(window) {
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    if (SDL_GetWindowWMInfo(window_, &info) != SDL_TRUE || info.subsystem != SDL_SYSWM_X11) {
        return;
    }
    x11_ = std::make_unique<X11>();
    x11_->display = info.info.x11.display;
    x11_->window = info.info.x11.window;
    x11_->state = XInternAtom(x11_->display, "_NET_WM_STATE", False);
    x11_->fullScreen = XInternAtom(x11_->display, "_NET_WM_STATE_FULLSCREEN", False);
    x11_->supportingWindowManager = XInternAtom(x11_->display, "_NET_SUPPORTING_WM_CHECK", False);
    // The window manager changes the state through a property of the window (PropertyNotify).
    SDL_EventState(SDL_SYSWMEVENT, SDL_ENABLE);
}

WindowManagerState::~WindowManagerState() = default;

bool WindowManagerState::windowManagerRuns() const {
    // A window manager that speaks the window-state protocol names a child window of its own on
    // the root window, and that child names itself.
    const Window root = DefaultRootWindow(x11_->display);
    const Window check = windowProperty(x11_->display, root, x11_->supportingWindowManager);
    return check != None && windowProperty(x11_->display, check, x11_->supportingWindowManager) == check;
}

bool WindowManagerState::fullScreen() const {
    // Without a window manager (a bare X server, as under xvfb-run) nobody sets the state: SDL
    // sizes the window over the display itself, and its flag is the whole answer.
    if (!x11_ || !windowManagerRuns()) {
        return (SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN) != 0;
    }
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    bool found = false;
    if (XGetWindowProperty(x11_->display, x11_->window, x11_->state, 0, 64, False, XA_ATOM, &type, &format, &count,
                           &remaining, &data) == Success &&
        data != nullptr) {
        const auto* atoms = reinterpret_cast<const Atom*>(data);
        for (unsigned long i = 0; i < count && !found; ++i) {
            found = atoms[i] == x11_->fullScreen;
        }
    }
    if (data != nullptr) {
        XFree(data);
    }
    return found;
}

bool WindowManagerState::mayHaveChanged(const SDL_SysWMmsg& message) const {
    if (!x11_ || message.subsystem != SDL_SYSWM_X11) {
        return false;
    }
    const XEvent& event = message.msg.x11.event;
    return event.type == PropertyNotify && event.xproperty.window == x11_->window &&
           event.xproperty.atom == x11_->state;
}

} // namespace brisvale
