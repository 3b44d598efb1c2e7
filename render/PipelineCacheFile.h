#pragma once
// The file in which the author's tools keep the driver's compiled pipelines between runs: one
// file per device and driver in a cache directory of the user's. The file is never trusted: it
// is read only when it is a regular file (not a link) of bounded size whose own header names
// this device and driver and whose length and checksum match; anything else is ignored and
// later replaced. It is replaced whole (a temporary file beside it, then a rename), never
// written through a link.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brisvale {

namespace gpu {
class Device;
} // namespace gpu

// Larger caches are neither read nor saved.
inline constexpr std::size_t kMaxPipelineCacheBytes = std::size_t{64} << 20;

// $XDG_CACHE_HOME/brisvale, else $HOME/.cache/brisvale; nullopt when neither names an absolute
// directory. Only the author's tools ask: the player started the specified way keeps no cache.
std::optional<std::filesystem::path> userPipelineCacheDirectory();

// "pipelines-<vendor>-<device>-<driver version>-<cache UUID>.bin", numbers in hexadecimal.
std::string pipelineCacheFileName(const gpu::Device& device);

struct PipelineCacheLoad {
    std::vector<std::uint8_t> bytes;  // the driver's data; empty when there is none to use
    std::string path;                 // the file looked for
    std::string problem;              // why a file that is there was ignored; empty otherwise
};
// No file (or no directory) is no problem.
PipelineCacheLoad loadPipelineCache(const std::filesystem::path& directory, const gpu::Device& device);

// Creates the directory (0700) when missing. Throws std::runtime_error with one line.
void savePipelineCacheFile(const std::filesystem::path& directory, const gpu::Device& device,
                           std::span<const std::uint8_t> bytes);

} // namespace brisvale
