#pragma once

// A show directory watched with inotify(7) for author mode's live reload: every directory of the
// tree, and each new one as it appears, for files written, created, renamed and deleted. A burst
// of events is one change (ChangeBurst); when it is over the watcher's own thread runs
// `changed`, and events that arrive meanwhile make the next change.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "app/LiveReload.h"
#include "content/FileDescriptor.h"

namespace brisvale {

class DirectoryWatcher {
public:
    using Clock = ChangeBurst::Clock;
    // More directories than a show has; the rest are not watched, which `problem` says once.
    static constexpr std::size_t kMaxDirectories = 4096;

    // `changed` is given the time of the change's last event. `problem` reports, one line each,
    // what the watcher could not do (a directory it cannot watch); both run on its thread.
    // Throws std::runtime_error with one line when inotify cannot be had.
    DirectoryWatcher(std::filesystem::path root, std::function<void(Clock::time_point)> changed,
                     std::function<void(std::string_view)> problem);
    // Stops and joins the thread (after a `changed` under way has returned).
    ~DirectoryWatcher();
    DirectoryWatcher(const DirectoryWatcher&) = delete;
    DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

private:
    void run();
    void readEvents(ChangeBurst& burst);
    void watchTree(const std::filesystem::path& directory);
    void watchDirectory(const std::filesystem::path& directory, bool isRoot);

    const std::filesystem::path root_;
    std::function<void(Clock::time_point)> changed_;
    std::function<void(std::string_view)> problem_;
    FileDescriptor inotify_;
    FileDescriptor stop_;  // an eventfd: written once by the destructor
    // Watch descriptor -> the directory it watches. The watcher's thread only, once started.
    std::unordered_map<int, std::filesystem::path> directories_;
    bool limitReported_ = false;
    std::thread thread_;  // the watcher's thread: reads events, runs `changed`
};

} // namespace brisvale
