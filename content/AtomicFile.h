#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

namespace brisvale {

// Writes `bytes` as the whole content of the file at `path`, atomically: they go to a temporary
// file beside it that is then renamed onto it, so `path` holds either its old content or all of
// the new. A symbolic link is followed and its target replaced, the link itself stays; an
// existing file keeps its permission bits, a new one gets 0644. A path that names anything but
// a regular file (a FIFO, a device, a directory) is refused before anything is written.
// Throws std::runtime_error with one line naming the path.
void replaceFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes);

// The same for a file written in pieces (a video as it is encoded): the target is resolved and
// refused as above on construction, the bytes go to a new temporary file beside it, and
// commit() renames that onto the target. Destroyed before commit(), it removes the temporary
// file: the target is left as it was. Throws std::runtime_error with one line naming the path.
class AtomicFileWriter {
public:
    explicit AtomicFileWriter(const std::string& path);
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // The temporary file, open for reading and writing; -1 once committed.
    int descriptor() const { return fd_; }
    const std::string& temporaryPath() const { return temporary_; }
    void write(std::span<const std::uint8_t> bytes);
    void commit();

private:
    std::string target_;
    std::optional<mode_t> mode_;
    std::string temporary_;
    int fd_ = -1;
    bool committed_ = false;
};

} // namespace brisvale
