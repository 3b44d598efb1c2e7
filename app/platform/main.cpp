// brisvale: the show player. Opens one window, goes full screen by itself, plays the show in
// demo.dat (found beside the executable, or in ../share/brisvale/) and quits when it ends.
// The command line (CommandLine.h) is read before SDL starts; without arguments the player is
// exactly the one above.
//
// The event loop is a script: set up SDL, the main queue and the delegate; launch; loop {
// events, main-queue tasks, quit? }; then tear down in reverse.
//
// Exit status and the cases the show's rules leave open:
//   0  the show ended (by itself, Escape, Ctrl+Q, closing the window); --help, --version.
//   1  a failed launch ("Launch failed: %s" on stderr once and in the system log; no window is
//      ever shown), an error escaping the event loop ("Fatal error: %s"), or a frame whose draw
//      raised ("Frame failed: %s" in the system log, reported once; the renderer has given its
//      in-flight slot back, and the show ends cleanly at once rather than hang or repeat).
//   2  a command line the player does not understand: the reason and the usage line on stderr.
//   A music file missing from the archive (or failing to inflate) is reported as
//   "Failed to load audio asset: <reason>"; the show then runs silent with no end time, and the
//   display timer starts as always.
//
// Linux windows have no menu bar: the menu's two items live on as their key equivalents,
// Ctrl+Q ("Quit Brisvale") and Ctrl+Return ("Toggle Full Screen"), Super in place of Ctrl where
// the desktop passes it through; they see every key before the view (menuKeyEquivalentFor).

#include <SDL2/SDL.h>

#include <time.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "app/MainThreadQueue.h"
#include "app/platform/AppDelegate.h"
#include "app/platform/SystemLog.h"

namespace brisvale {
namespace {

// SDL's video and event subsystems, for the life of the program.
class SdlSession {
public:
    SdlSession() {
        if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_EVENTS) != 0) {
            throw std::runtime_error(std::string("Failed to initialise SDL: ") + SDL_GetError());
        }
        wakeEvent_ = SDL_RegisterEvents(1);
        if (wakeEvent_ == static_cast<Uint32>(-1)) {
            throw std::runtime_error("Failed to register the main queue's wake event");
        }
    }
    ~SdlSession() { SDL_Quit(); }
    SdlSession(const SdlSession&) = delete;
    SdlSession& operator=(const SdlSession&) = delete;

    // Any thread: wakes the event loop so that it runs the main queue.
    void wakeEventLoop() const {
        SDL_Event event{};
        event.type = wakeEvent_;
        SDL_PushEvent(&event);
    }

private:
    Uint32 wakeEvent_ = 0;
};

// One SDL event to its handler.
void handleEvent(const SDL_Event& event, Application& application, AppDelegate& delegate) {
    switch (event.type) {
    case SDL_QUIT:  // also SIGINT and SIGTERM
        application.terminate();
        break;
    case SDL_WINDOWEVENT:
        delegate.handleWindowEvent(event.window);
        break;
    case SDL_KEYDOWN:
        delegate.handleKeyDown(event.key);
        break;
    case SDL_SYSWMEVENT:  // the window manager's side of full screen
        delegate.handleSystemEvent(*event.syswm.msg);
        break;
    default:  // the main queue's wake event among others: its tasks run after the events
        break;
    }
}

// --frame-pump-stats, for bench/app/frame_pump.sh: two lines at exit, the share of display ticks
// that became frames and the main thread's processor time per frame; then frames per second and,
// under --scale auto, the render scales the frames were drawn at.
void reportFramePump(const AppDelegate& delegate) {
    const MetalView* view = delegate.contentView();
    if (view == nullptr) {
        return;
    }
    timespec cpu{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    const double mainCpuMs = cpu.tv_sec * 1e3 + cpu.tv_nsec / 1e6;
    const FramePumpCounters& c = view->counters();
    const double ticks = static_cast<double>(c.ticks.load());
    const double drawn = static_cast<double>(c.drawn);
    std::fprintf(stderr,
                 "frame pump: ticks %.0f, frames queued %llu, drawn %.0f, share %.3f, "
                 "main-thread CPU per frame %.3f ms (in frames %.3f ms), main-thread CPU total %.1f ms\n",
                 ticks, static_cast<unsigned long long>(c.queued.load()), drawn, ticks > 0 ? drawn / ticks : 0.0,
                 drawn > 0 ? mainCpuMs / drawn : 0.0,
                 drawn > 0 ? std::chrono::duration<double, std::milli>(c.frameCpu).count() / drawn : 0.0, mainCpuMs);
    // Frames per second from the first frame to the last, and where --scale auto put them.
    const double drawing = std::chrono::duration<double>(c.lastDrawnAt - c.firstDrawnAt).count();
    std::fprintf(stderr, "frame pump: frames per second %.1f", drawing > 0 ? (drawn - 1) / drawing : 0.0);
    if (const DynamicResolution* scale = view->dynamicResolution()) {
        std::fprintf(stderr, ", render scale %.2f, %llu changes, frames per scale", scale->scale(),
                     static_cast<unsigned long long>(scale->changes()));
        for (int step = 0; step < DynamicResolution::kSteps; ++step) {
            const std::uint64_t frames = scale->framesPerStep()[static_cast<std::size_t>(step)];
            if (frames > 0) {
                std::fprintf(stderr, " %.2f:%llu", DynamicResolution::scaleOfStep(step),
                             static_cast<unsigned long long>(frames));
            }
        }
    }
    std::fputc('\n', stderr);
}

int runApplication(const PlayerOptions& options) {
    SdlSession sdl;
    MainThreadQueue mainQueue([&sdl] { sdl.wakeEventLoop(); });
    Application application;
    AppDelegate delegate(application, mainQueue, options);

    delegate.applicationDidFinishLaunching();
    while (!application.isTerminating()) {
        SDL_Event event;
        if (SDL_WaitEventTimeout(&event, mainQueue.millisecondsUntilNextDue())) {
            do {
                handleEvent(event, application, delegate);
            } while (!application.isTerminating() && SDL_PollEvent(&event));
        }
        // A task that asks to quit is the last one: quitting does not return to the queue.
        mainQueue.runPending([&application] { return application.isTerminating(); });
    }
    delegate.applicationWillTerminate();
    if (options.framePumpStats) {
        reportFramePump(delegate);
    }
    // Frame and pool-growth tasks still queued are dropped: the show is over.
    mainQueue.dropAll();
    return delegate.exitStatus();
    // The delegate (window, view: display timer, player, song, renderer), the queue and SDL go
    // here, in reverse order of their creation.
}

} // namespace
} // namespace brisvale

int main(int argc, char** argv) {
    brisvale::PlayerOptions options;
    try {
        options = brisvale::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const brisvale::CommandLineError& e) {
        std::fprintf(stderr, "brisvale: %s\n%s\n", e.what(), brisvale::usageLine().c_str());
        return 2;
    }
    // Neither needs a display: they are answered before SDL starts.
    if (options.help || options.version) {
        std::fputs((options.help ? brisvale::helpText() : brisvale::versionText()).c_str(), stdout);
        return 0;
    }

    brisvale::SystemLogSession log;
    try {
        return brisvale::runApplication(options);
    } catch (const std::exception& e) {
        brisvale::systemLog(std::string("Fatal error: ") + e.what());
        return 1;
    }
}
