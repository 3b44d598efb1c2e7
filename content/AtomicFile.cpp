// Atomic replacement of a file on disk for the tools that write files: the packer's container
// and the capture tool's images.

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

// Closes a descriptor and removes the temporary file unless it was renamed into place.
class TempFile {
public:
    explicit TempFile(const std::string& target) : path_(target + ".tmp-XXXXXX") {
        fd_ = mkstemp(path_.data());
        if (fd_ < 0) {
            fail("Failed to create", path_, std::strerror(errno));
        }
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    ~TempFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (!committed_) {
            ::unlink(path_.c_str());
        }
    }

    void write(std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                fail("Failed to write", path_, std::strerror(errno));
            }
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        }
    }

    void commit(const std::string& target, mode_t mode) {
        // mkstemp creates the file 0600.
        if (::fchmod(fd_, mode) != 0 || ::fsync(fd_) != 0) {
            fail("Failed to write", path_, std::strerror(errno));
        }
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) {
            fail("Failed to write", path_, std::strerror(errno));
        }
        if (::rename(path_.c_str(), target.c_str()) != 0) {
            fail("Failed to write", target, std::strerror(errno));
        }
        committed_ = true;
    }

private:
    std::string path_;
    int fd_ = -1;
    bool committed_ = false;
};

} // namespace

void replaceFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes) {
    const Target target = resolveTarget(path);
    TempFile temp(target.path);
    temp.write(bytes);
    temp.commit(target.path, target.mode.value_or(kNewFileMode));
}

} // namespace brisvale
