#pragma once

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

} // namespace brisvale
