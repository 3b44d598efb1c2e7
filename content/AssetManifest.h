#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "content/DemoArchive.h"

namespace brisvale {

// The image paths listed by the asset manifest at `manifestPath`, resolved against the
// manifest's directory, in ascending order of their "image.<index>.path" keys. May be empty.
// Archive errors pass through; text that is not UTF-8 fails with "Failed to decode asset
// manifest".
std::vector<std::string> loadImagePaths(const DemoArchive& archive, std::string_view manifestPath);

// One "image.<index>.path" line of an asset manifest, as loadImagePaths reads it.
struct ImageKeyLine {
    std::uint32_t number = 0;  // 1-based, a CR LF counting as one line end
    std::string_view key;      // trimmed, as written
    std::string_view indexText; // the part between "image." and ".path"
    std::int64_t index = 0;    // the index it stands for
    std::string path;          // the value resolved against the manifest's directory
};

// Hands every image key line of the asset manifest to `visit` in file order (a later line of
// the same index is the one loadImagePaths keeps), with loadImagePaths' errors.
void forEachImageKey(const DemoArchive& archive, std::string_view manifestPath,
                     const std::function<void(const ImageKeyLine&)>& visit);

} // namespace brisvale
