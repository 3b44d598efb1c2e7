#pragma once

#include <cstdint>
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

// Where a line of expanded source came from.
struct SourceOrigin {
    std::string file;   // canonical archive path
    std::uint32_t line; // 1-based line of that file (an include line for the empty line after
                        // the included text)
};

struct ExpandedShaderSource {
    std::string text;                  // exactly loadMetalSourceWithIncludes' output
    std::vector<SourceOrigin> origins; // one per line of text (index = line - 1)
    std::vector<std::string> files;    // every file read, canonical, in first-read order
};

// loadMetalSourceWithIncludes with a fresh include stack, and where each line came from. Fails
// with its messages, and also when the result has more than 1,048,576 lines (the map would
// outgrow the text many times over).
ExpandedShaderSource expandShaderSource(const DemoArchive& archive, std::string_view path);

// `message` (a compiler's, about `source.text`) with each location "0:<line>:" rewritten as
// "<file>:<line>:" of the file that line came from. A line past the end is the end of the text
// and names the last line; anything else is left as it is.
std::string mapShaderMessage(std::string_view message, const ExpandedShaderSource& source);

} // namespace brisvale
