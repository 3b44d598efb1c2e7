#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "content/DemoArchive.h"

namespace brisvale {

// The shader source at `path` with every include line ('#include "name"', the name relative to
// the including file) replaced by the expanded text of the file it names. Every line end of the
// result is a single line feed. `includeStack` holds the canonical paths being expanded,
// outermost first; pass it empty. On success it is as it was on entry; on failure it ends with
// the chain of files down to the one that failed (for a recursion, that file a second time).
// Fails, besides the archive's and the decoder's messages, when a file is reached again within
// its own chain, when includes nest more than 64 files deep, when more than 4096 includes are
// expanded, and when the result would exceed 16 MiB.
std::string loadMetalSourceWithIncludes(const DemoArchive& archive, std::string_view path,
                                        std::vector<std::string>& includeStack);

} // namespace brisvale
