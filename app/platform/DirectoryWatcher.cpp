// The inotify watch on a show directory: the thread that reads its events into changes, and the
// watches on every directory of the tree, new ones as they appear.
//
// [SECTION] The watcher's thread
// [SECTION] Watches

#include "app/platform/DirectoryWatcher.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace brisvale {
namespace {

namespace fs = std::filesystem;

// What changes a show: files written, created, renamed in or out and deleted, and the directory
// itself going. Reads are not watched: the reload's own reading must not wake the watcher.
constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

std::string systemError(const char* call, int error) {
    return std::string(call) + ": " + std::strerror(error);
}

} // namespace

DirectoryWatcher::DirectoryWatcher(fs::path root, std::function<void(Clock::time_point)> changed,
                                   std::function<void(std::string_view)> problem)
    : root_(std::move(root)),
      changed_(std::move(changed)),
      problem_(std::move(problem)),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
    if (inotify_.get() < 0) throw std::runtime_error(systemError("inotify_init1", errno));
    if (stop_.get() < 0) throw std::runtime_error(systemError("eventfd", errno));
    watchDirectory(root_, true);
    if (directories_.empty()) throw std::runtime_error("cannot watch " + root_.string());
    watchTree(root_);
    thread_ = std::thread([this] { run(); });
}

DirectoryWatcher::~DirectoryWatcher() {
    const std::uint64_t one = 1;
    if (::write(stop_.get(), &one, sizeof one) != sizeof one) {
        // An eventfd write fails only on overflow, which one write cannot reach.
    }
    if (thread_.joinable()) thread_.join();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The watcher's thread
// ---------------------------------------------------------------------------------------------

void DirectoryWatcher::run() {
    ChangeBurst burst;
    pollfd fds[2] = {{inotify_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    for (;;) {
        int timeout = -1;
        if (burst.pending()) {
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(burst.dueAt() - Clock::now());
            timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
        }
        const int ready = ::poll(fds, 2, timeout);
        if (ready < 0 && errno != EINTR) {
            problem_(systemError("poll", errno));
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) != 0) readEvents(burst);
        if (burst.pending() && Clock::now() >= burst.dueAt()) {
            const Clock::time_point at = burst.lastEventAt();
            burst.clear();
            try {
                changed_(at);
            } catch (const std::exception& e) {
                problem_(e.what());
            }
        }
    }
}

void DirectoryWatcher::readEvents(ChangeBurst& burst) {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t length = ::read(inotify_.get(), buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return;  // EAGAIN: all read
        const Clock::time_point now = Clock::now();
        for (const char* at = buffer; at < buffer + length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            if ((event->mask & IN_IGNORED) != 0) {
                directories_.erase(event->wd);
                continue;
            }
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                // Events were lost, new directories among them perhaps.
                watchTree(root_);
            } else if ((event->mask & IN_ISDIR) != 0 && (event->mask & (IN_CREATE | IN_MOVED_TO)) != 0 &&
                       event->len > 0) {
                const auto parent = directories_.find(event->wd);
                if (parent != directories_.end()) watchTree(parent->second / event->name);
            }
            const bool completesAFile =
                (event->mask & IN_ISDIR) == 0 && (event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0;
            burst.note(completesAFile, now);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Watches
// ---------------------------------------------------------------------------------------------

void DirectoryWatcher::watchTree(const fs::path& directory) {
    std::error_code error;
    if (directory != root_) watchDirectory(directory, false);
    // Links to directories are neither followed nor watched: a show's files are its own tree.
    for (fs::recursive_directory_iterator it(directory, fs::directory_options::skip_permission_denied, error), end;
         !error && it != end; it.increment(error)) {
        if (it->symlink_status(error).type() == fs::file_type::directory) watchDirectory(it->path(), false);
    }
}

void DirectoryWatcher::watchDirectory(const fs::path& directory, bool isRoot) {
    // The root is the directory as given, a link to it included.
    const std::uint32_t mask = isRoot ? kEvents : kEvents | IN_DONT_FOLLOW;
    if (directories_.size() >= kMaxDirectories) {
        if (!limitReported_) {
            limitReported_ = true;
            problem_("Not watching more than " + std::to_string(kMaxDirectories) + " directories under " +
                     root_.string());
        }
        return;
    }
    const int wd = ::inotify_add_watch(inotify_.get(), directory.c_str(), mask);
    if (wd < 0) {
        // Gone already, or not a directory any more: nothing to watch.
        if (errno != ENOENT && errno != ENOTDIR) {
            problem_("Cannot watch " + directory.string() + ": " + std::strerror(errno));
        }
        return;
    }
    directories_[wd] = directory;
}

} // namespace brisvale
