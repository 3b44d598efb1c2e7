#pragma once
// What the fuzz targets share: one in-memory file for the readers that take a path, and a guard
// that lets the content and renderer messages through while anything else stays a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace brisvale::fuzz {

// DemoArchive::load reads a named file; an in-memory file keeps each run off the disk.
struct MemoryFile {
    int fd;
    std::string path;
};

inline const MemoryFile& memoryFile() {
    static const MemoryFile file = [] {
        const int fd = memfd_create("brisvale_fuzz", 0);
        if (fd < 0) {
            std::abort();
        }
        return MemoryFile{fd, "/proc/self/fd/" + std::to_string(fd)};
    }();
    return file;
}

// Replaces the memory file's content with `size` bytes and returns its path.
inline const std::string& writeMemoryFile(const std::uint8_t* data, std::size_t size) {
    const int fd = memoryFile().fd;
    if (ftruncate(fd, 0) != 0 ||
        (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))) {
        std::abort();
    }
    return memoryFile().path;
}

// Runs `f`; a std::runtime_error (a one-line message) is an expected outcome, anything else
// escapes and libFuzzer reports it.
template <class F>
void expectOnlyRuntimeErrors(F&& f) {
    try {
        f();
    } catch (const std::runtime_error&) {
    }
}

} // namespace brisvale::fuzz
