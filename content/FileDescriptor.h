#pragma once

// An open file descriptor, closed on every way out. For the readers and writers that need what
// streams do not give: O_NOFOLLOW, O_NONBLOCK against FIFOs, fstat on what was opened.

#include <unistd.h>

namespace brisvale {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    // Negative when the open failed.
    int get() const { return fd_; }
    // For a close whose result matters: the caller closes it.
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

} // namespace brisvale
