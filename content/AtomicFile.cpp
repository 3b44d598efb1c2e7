// Atomic replacement of a file on disk for the tools that write files: the packer's container
// and the capture tool's images and videos.

#include "content/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace brisvale {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr int kMaxLinkHops = 40; // as the kernel's own limit on following links

[[noreturn]] void fail(const std::string& what, const std::string& path, const char* reason) {
    throw std::runtime_error(what + " " + path + ": " + reason);
}

// The file that writing to `path` really reaches, and its permission bits if it exists.
struct Target {
    std::string path;
    std::optional<mode_t> mode;
};

Target resolveTarget(const std::string& path) {
    Target target{path, std::nullopt};
    for (int hops = 0;; ++hops) {
        struct stat status {};
        if (::lstat(target.path.c_str(), &status) != 0) {
            if (errno == ENOENT) {
                return target; // a new file; a missing directory fails when it is created
            }
            fail("Failed to write", path, std::strerror(errno));
        }
        if (S_ISREG(status.st_mode)) {
            target.mode = status.st_mode & 0777;
            return target;
        }
        if (!S_ISLNK(status.st_mode)) {
            fail("Failed to write", path, "not a regular file");
        }
        if (hops == kMaxLinkHops) {
            fail("Failed to write", path, std::strerror(ELOOP));
        }
        char link[PATH_MAX];
        const ssize_t length = ::readlink(target.path.c_str(), link, sizeof link);
        if (length < 0 || static_cast<std::size_t>(length) == sizeof link) {
            fail("Failed to write", path, std::strerror(length < 0 ? errno : ENAMETOOLONG));
        }
        const std::string next(link, static_cast<std::size_t>(length));
        const std::size_t slash = target.path.rfind('/');
        // A relative link is relative to the directory that holds it.
        target.path = next.front() == '/' || slash == std::string::npos
                          ? next
                          : target.path.substr(0, slash + 1) + next;
    }
}

} // namespace

void replaceFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes) {
    AtomicFileWriter file(path);
    file.write(bytes);
    file.commit();
}

AtomicFileWriter::AtomicFileWriter(const std::string& path) {
    Target target = resolveTarget(path);
    target_ = std::move(target.path);
    mode_ = target.mode;
    temporary_ = target_ + ".tmp-XXXXXX";
    fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
    if (fd_ < 0) {
        fail("Failed to create", temporary_, std::strerror(errno));
    }
}

AtomicFileWriter::~AtomicFileWriter() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    if (!committed_) {
        ::unlink(temporary_.c_str());
    }
}

void AtomicFileWriter::write(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            fail("Failed to write", temporary_, std::strerror(errno));
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
}

void AtomicFileWriter::commit() {
    // mkstemp creates the file 0600.
    if (::fchmod(fd_, mode_.value_or(kNewFileMode)) != 0 || ::fsync(fd_) != 0) {
        fail("Failed to write", temporary_, std::strerror(errno));
    }
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
        fail("Failed to write", temporary_, std::strerror(errno));
    }
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        fail("Failed to write", target_, std::strerror(errno));
    }
    committed_ = true;
}

} // namespace brisvale
