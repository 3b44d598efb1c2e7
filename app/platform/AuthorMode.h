#pragma once

// Author mode: a show directory played while its author works on it. The render view makes one
// when SHOW is a directory; it owns
// - the show's time control (ShowTransport) and the keys that drive it;
// - live reload: a DirectoryWatcher whose thread reads the directory again after each change,
//   compares it with what the running show was built from (LiveReload.h) and prepares new
//   shaders, images or the whole show off the main thread; the main thread installs them
//   between two frames;
// - what the author reads: errors naming the author's files, on stderr and over the picture
//   until the part that failed builds again; "Reloaded FILE in N ms" once the first frame with a
//   reload is drawn; the status line (show time, phase, frame rate, GPU time) in the window's
//   title and, toggled with H, over the picture.
//
// [SECTION] Set-up
// [SECTION] Keys
// [SECTION] Reload: watcher thread
// [SECTION] Reload: main thread
// [SECTION] Status

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/CommandLine.h"
#include "app/KeyBindings.h"
#include "app/LiveReload.h"
#include "app/MainThreadQueue.h"
#include "app/ShowTransport.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/Renderer.h"

namespace brisvale {

class DirectoryWatcher;

// What author mode asks of the render view, besides the music's transport. Main thread.
class AuthorModeHost : public ShowMusic {
public:
    // The show read again: the view keeps `archive` and `manifest` and, once the show has
    // started, loads the music anew from them. False when that music did not load.
    virtual bool adoptShow(std::shared_ptr<const DemoArchive> archive, const DemoManifest& manifest) = 0;
    virtual float musicDurationSeconds() const = 0;
    virtual float musicEndSeconds() const = 0;
    virtual void setWindowTitle(const std::string& title) = 0;
    virtual std::uint64_t framesDrawn() const = 0;
    virtual std::uint64_t displayTicks() const = 0;

protected:
    ~AuthorModeHost() = default;
};

class AuthorMode {
public:
    using Clock = std::chrono::steady_clock;

    // Main thread, at the end of stage A: `archive` and `manifest` are what the renderer was made
    // from. Watching starts here; where inotify cannot be had, the show plays without live
    // reload and stderr says so.
    AuthorMode(AuthorModeHost& host, Renderer& renderer, MainThreadQueue& mainQueue, const PlayerOptions& options,
               const DemoArchive& archive, const DemoManifest& manifest);
    ~AuthorMode();  // stops watching (after a reload under way)
    AuthorMode(const AuthorMode&) = delete;
    AuthorMode& operator=(const AuthorMode&) = delete;

    ShowTransport& transport() { return transport_; }

    // [SECTION] Keys
    // Main thread: a key the view's own table passed on.
    void keyDown(const KeyPress& key);
    // Main thread, after each frame drawn: reports that waited for it. Allocates nothing.
    void frameDrawn();

private:
    // A reload's result, from the watcher's thread to the main thread. A part not attempted has
    // neither a result nor an error.
    struct Reload {
        Clock::time_point changedAt;               // the change's last event
        // For --timings: reading the directory began, comparing it ended, preparing ended.
        Clock::time_point readAt;
        Clock::time_point comparedAt;
        Clock::time_point preparedAt;
        std::optional<std::string> readError;       // the directory could not be read
        std::shared_ptr<const DemoArchive> archive; // the whole show again: archive and manifest
        DemoManifest manifest;
        std::optional<std::string> showError;
        std::shared_ptr<Renderer::PreparedShaders> shaders;
        std::optional<std::string> shaderError;
        std::shared_ptr<Renderer::PreparedImages> images;
        std::optional<std::string> imageError;
        std::string files;  // the changed files, for the report
    };
    enum Part { ReadPart, ShowPart, ShaderPart, ImagePart, PartCount };

    // A line printed once the next frame has been drawn, with the time since `since`.
    struct PendingReport {
        bool waiting = false;
        Clock::time_point since;
        std::string subject;  // what happened: "Reloaded shaders/main.glsl", "Moved to 12.000 s"
        std::string detail;   // --timings: where the time went before the main thread had it
        std::uint64_t ticks = 0;  // display ticks when it happened
        Clock::time_point postedAt;     // a reload: handed to the main thread
        Clock::time_point installedAt;  // and installed there
    };

    void directoryChanged(Clock::time_point changedAt);  // the watcher's thread
    void hand(Reload reload);                            // to the main thread
    void applyHanded();                                  // main thread, from here on
    void apply(const Reload& reload);
    void setError(Part part, std::optional<std::string> error, bool print = true);
    void updateOverlay();
    void updateStatus();
    void scheduleStatus();

    AuthorModeHost& host_;
    Renderer& renderer_;
    MainThreadQueue& mainQueue_;
    const std::string showPath_;
    const bool timings_;
    ShowTransport transport_;

    // The watcher's thread only (set before it starts): what the running show was built from.
    ShowFingerprints fingerprints_;
    ShowFiles files_;
    DemoManifest manifest_;
    bool readFailed_ = false;

    // Results on their way to the main thread, in order. Kept here rather than in the queued
    // tasks, so that what was prepared never outlives the renderer: tasks left in the queue at
    // the end are dropped, this goes with author mode. Guards handed_: the watcher's thread
    // appends, the main thread takes.
    std::mutex handedLock_;
    std::deque<Reload> handed_;

    // Main thread only.
    std::array<std::string, PartCount> errors_;
    bool statusVisible_ = false;
    std::string status_;
    std::string overlay_;
    bool overlayFailed_ = false;
    PendingReport reloadReport_;
    PendingReport moveReport_;
    std::uint64_t framesAtStatus_ = 0;
    Clock::time_point statusAt_;
    double framesPerSecond_ = 0.0;

    // Last: its thread stops before anything it uses goes.
    std::unique_ptr<DirectoryWatcher> watcher_;
};

} // namespace brisvale
