#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace brisvale {

// Writes `bytes` as the whole content of the file at `path`, atomically: they go to a temporary
// file beside it that is then renamed onto it, so `path` holds either its old content or all of
// the new. A symbolic link is followed and its target replaced, the link itself stays; an
// existing file keeps its permission bits, a new one gets 0644. A path that names anything but
// a regular file (a FIFO, a device, a directory) is refused before anything is written.
// Throws std::runtime_error with one line naming the path.
void replaceFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes);

} // namespace brisvale
