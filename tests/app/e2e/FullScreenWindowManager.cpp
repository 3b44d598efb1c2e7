// A window manager of our own for the end-to-end tests: maps every window where it asks to be,
// and answers a full-screen request (_NET_WM_STATE_FULLSCREEN, as a message or set before the
// window is mapped) by setting the state and placing the window at a geometry given on the
// command line, which need not be the display's size: what a desktop with panels, tiling or
// scaling does. It may take its time to answer, as one that animates does, and sets the state
// only after the size. With "refuse" it leaves such requests unanswered. No frames, no
// reparenting.
//
//   brisvale-e2e-window-manager WIDTHxHEIGHT+X+Y | refuse [DELAY_MS]

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <thread>

namespace {

struct Geometry {
    int x = 0;
    int y = 0;
    unsigned width = 0;
    unsigned height = 0;
};

int ignoreErrors(Display*, XErrorEvent*) { return 0; }  // windows may go at any time

class WindowManager {
public:
    WindowManager(Display* display, std::optional<Geometry> fullScreen, std::chrono::milliseconds delay)
        : display_(display), fullScreen_(fullScreen), delay_(delay) {
        root_ = DefaultRootWindow(display_);
        wmState_ = XInternAtom(display_, "_NET_WM_STATE", False);
        wmStateFullScreen_ = XInternAtom(display_, "_NET_WM_STATE_FULLSCREEN", False);
        activeWindow_ = XInternAtom(display_, "_NET_ACTIVE_WINDOW", False);
    }

    // The display is the test's own: nobody else manages it.
    void claim() {
        XSetErrorHandler(ignoreErrors);
        XSelectInput(display_, root_, SubstructureRedirectMask | SubstructureNotifyMask);
        // What tools (and the tests) look for to tell that a window manager runs.
        const Window check = XCreateSimpleWindow(display_, root_, 0, 0, 1, 1, 0, 0, 0);
        const Atom supportingCheck = XInternAtom(display_, "_NET_SUPPORTING_WM_CHECK", False);
        for (Window w : {root_, check}) {
            XChangeProperty(display_, w, supportingCheck, XA_WINDOW, 32, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(&check), 1);
        }
        const Atom supported[] = {wmState_, wmStateFullScreen_, activeWindow_};
        XChangeProperty(display_, root_, XInternAtom(display_, "_NET_SUPPORTED", False), XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(supported), 3);
        XSync(display_, False);
    }

    void run() {
        for (;;) {
            XEvent event;
            XNextEvent(display_, &event);
            switch (event.type) {
            case MapRequest: onMapRequest(event.xmaprequest.window); break;
            case ConfigureRequest: onConfigureRequest(event.xconfigurerequest); break;
            case ClientMessage: onClientMessage(event.xclient); break;
            case DestroyNotify: saved_.erase(event.xdestroywindow.window); break;
            default: break;
            }
        }
    }

private:
    void onMapRequest(Window window) {
        XMapWindow(display_, window);
        if (fullScreen_ && hasFullScreenState(window)) enterFullScreen(window);
        XSetInputFocus(display_, window, RevertToPointerRoot, CurrentTime);
    }

    void onConfigureRequest(const XConfigureRequestEvent& request) {
        if (saved_.count(request.window) != 0) return;  // a full-screen window keeps its place
        XWindowChanges changes{};
        changes.x = request.x;
        changes.y = request.y;
        changes.width = request.width;
        changes.height = request.height;
        changes.border_width = request.border_width;
        changes.sibling = request.above;
        changes.stack_mode = request.detail;
        XConfigureWindow(display_, request.window, static_cast<unsigned>(request.value_mask), &changes);
    }

    void onClientMessage(const XClientMessageEvent& message) {
        if (message.message_type == activeWindow_) {
            XRaiseWindow(display_, message.window);
            XSetInputFocus(display_, message.window, RevertToPointerRoot, CurrentTime);
            return;
        }
        const auto names = [&](Atom a) { return static_cast<Atom>(message.data.l[1]) == a ||
                                                static_cast<Atom>(message.data.l[2]) == a; };
        if (message.message_type != wmState_ || !names(wmStateFullScreen_) || !fullScreen_) return;
        const long action = message.data.l[0];  // 0 remove, 1 add, 2 toggle
        const bool inFullScreen = saved_.count(message.window) != 0;
        if (action == 1 || (action == 2 && !inFullScreen)) {
            std::this_thread::sleep_for(delay_);
            enterFullScreen(message.window);
        } else if (inFullScreen) {
            leaveFullScreen(message.window);
        }
    }

    bool hasFullScreenState(Window window) {
        Atom type = None;
        int format = 0;
        unsigned long count = 0;
        unsigned long after = 0;
        unsigned char* data = nullptr;
        bool found = false;
        if (XGetWindowProperty(display_, window, wmState_, 0, 32, False, XA_ATOM, &type, &format, &count, &after,
                               &data) == Success && data != nullptr) {
            const auto* atoms = reinterpret_cast<const Atom*>(data);
            for (unsigned long i = 0; i < count; ++i) found = found || atoms[i] == wmStateFullScreen_;
            XFree(data);
        }
        return found;
    }

    void enterFullScreen(Window window) {
        if (saved_.count(window) == 0) {
            XWindowAttributes attributes{};
            XGetWindowAttributes(display_, window, &attributes);
            saved_[window] = Geometry{attributes.x, attributes.y, static_cast<unsigned>(attributes.width),
                                      static_cast<unsigned>(attributes.height)};
        }
        // The size first and the state a moment later, as some do: the state alone tells the
        // window that it was granted.
        XMoveResizeWindow(display_, window, fullScreen_->x, fullScreen_->y, fullScreen_->width, fullScreen_->height);
        XRaiseWindow(display_, window);
        XSync(display_, False);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        XChangeProperty(display_, window, wmState_, XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&wmStateFullScreen_), 1);
        XFlush(display_);
    }

    void leaveFullScreen(Window window) {
        const Geometry before = saved_[window];
        saved_.erase(window);
        XChangeProperty(display_, window, wmState_, XA_ATOM, 32, PropModeReplace, nullptr, 0);
        XMoveResizeWindow(display_, window, before.x, before.y, before.width, before.height);
        XFlush(display_);
    }

    Display* display_;
    std::optional<Geometry> fullScreen_;  // nullopt: full screen is refused
    std::chrono::milliseconds delay_;     // before a request is answered
    Window root_ = 0;
    Atom wmState_ = 0;
    Atom wmStateFullScreen_ = 0;
    Atom activeWindow_ = 0;
    std::map<Window, Geometry> saved_;  // full-screen windows and where they were before
};

} // namespace

int main(int argc, char** argv) {
    Geometry granted;
    const bool refuses = argc >= 2 && std::strcmp(argv[1], "refuse") == 0;
    if (argc < 2 || argc > 3 || (!refuses && std::sscanf(argv[1], "%ux%u+%d+%d", &granted.width, &granted.height,
                                                         &granted.x, &granted.y) != 4)) {
        std::fprintf(stderr, "usage: %s WIDTHxHEIGHT+X+Y | refuse [DELAY_MS]\n", argv[0]);
        return 2;
    }
    const std::chrono::milliseconds delay{argc == 3 ? std::atoi(argv[2]) : 0};
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "cannot open the display\n");
        return 1;
    }
    WindowManager manager(display, refuses ? std::nullopt : std::optional<Geometry>(granted), delay);
    manager.claim();
    manager.run();
}
