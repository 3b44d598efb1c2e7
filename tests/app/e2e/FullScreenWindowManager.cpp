// A window manager of our own for the end-to-end tests: maps every window where it asks to be,
// and answers a request to enter full screen (_NET_WM_STATE_FULLSCREEN) by placing the window at
// a geometry given on the command line, which need not be the display's size (what a desktop with
// panels, tiling or scaling does), and then setting the state. It may take its time to answer, as
// one that animates does. With "refuse" it leaves such requests unanswered. No frames, no
// reparenting, no leaving full screen.
//
//   brisvale-e2e-window-manager WIDTHxHEIGHT+X+Y | refuse [DELAY_MS]

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

int ignoreErrors(Display*, XErrorEvent*) { return 0; }  // windows may go at any time

struct Grant {
    bool refuses = false;
    int x = 0;
    int y = 0;
    unsigned width = 0;
    unsigned height = 0;
    std::chrono::milliseconds delay{0};
};

void grantFullScreen(Display* display, Window window, const Grant& grant, Atom state, Atom fullScreen) {
    std::this_thread::sleep_for(grant.delay);
    XMoveResizeWindow(display, window, grant.x, grant.y, grant.width, grant.height);
    XRaiseWindow(display, window);
    XSync(display, False);
    // The state a moment after the size, as some do: the state alone says that it was granted.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    XChangeProperty(display, window, state, XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(&fullScreen), 1);
    XFlush(display);
}

} // namespace

int main(int argc, char** argv) {
    Grant grant;
    grant.refuses = argc >= 2 && std::strcmp(argv[1], "refuse") == 0;
    if (argc < 2 || argc > 3 ||
        (!grant.refuses && std::sscanf(argv[1], "%ux%u+%d+%d", &grant.width, &grant.height, &grant.x, &grant.y) != 4)) {
        std::fprintf(stderr, "usage: %s WIDTHxHEIGHT+X+Y | refuse [DELAY_MS]\n", argv[0]);
        return 2;
    }
    grant.delay = std::chrono::milliseconds(argc == 3 ? std::atoi(argv[2]) : 0);
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "cannot open the display\n");
        return 1;
    }
    XSetErrorHandler(ignoreErrors);
    const Window root = DefaultRootWindow(display);
    const Atom state = XInternAtom(display, "_NET_WM_STATE", False);
    const Atom fullScreen = XInternAtom(display, "_NET_WM_STATE_FULLSCREEN", False);
    // The display is the test's own: nobody else manages it.
    XSelectInput(display, root, SubstructureRedirectMask | SubstructureNotifyMask);
    // What clients (and the tests) look for to tell that a window manager runs.
    const Window check = XCreateSimpleWindow(display, root, 0, 0, 1, 1, 0, 0, 0);
    const Atom supportingCheck = XInternAtom(display, "_NET_SUPPORTING_WM_CHECK", False);
    for (Window w : {root, check}) {
        XChangeProperty(display, w, supportingCheck, XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&check), 1);
    }
    XSync(display, False);

    for (;;) {
        XEvent event;
        XNextEvent(display, &event);
        if (event.type == MapRequest) {
            XMapWindow(display, event.xmaprequest.window);
            XSetInputFocus(display, event.xmaprequest.window, RevertToPointerRoot, CurrentTime);
        } else if (event.type == ConfigureRequest) {
            const XConfigureRequestEvent& request = event.xconfigurerequest;
            XWindowChanges changes{};
            changes.x = request.x;
            changes.y = request.y;
            changes.width = request.width;
            changes.height = request.height;
            changes.border_width = request.border_width;
            changes.sibling = request.above;
            changes.stack_mode = request.detail;
            XConfigureWindow(display, request.window, static_cast<unsigned>(request.value_mask), &changes);
        } else if (event.type == ClientMessage && event.xclient.message_type == state && !grant.refuses) {
            // data.l: action (1 add, 2 toggle), then the one or two states it is about.
            const XClientMessageEvent& message = event.xclient;
            const bool aboutFullScreen = static_cast<Atom>(message.data.l[1]) == fullScreen ||
                                         static_cast<Atom>(message.data.l[2]) == fullScreen;
            if (aboutFullScreen && (message.data.l[0] == 1 || message.data.l[0] == 2)) {
                grantFullScreen(display, message.window, grant, state, fullScreen);
            }
        }
    }
}
