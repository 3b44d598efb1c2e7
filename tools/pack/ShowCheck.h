#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "content/DemoArchive.h"

namespace brisvale {

// One thing the check found. An error stops or spoils the show; a warning is a behaviour of the
// player that stays as it is but surprises authors.
struct ShowFinding {
    bool error = true;
    std::string file;       // the show's file it is about (archive path), or "" for the show
    std::uint32_t line = 0; // 1-based line of that file, 0 for none
    std::string message;    // one line
};

// Everything in `archive` that would stop the show or spoil it, found without a GPU or an audio
// device and without stopping at the first: demo.ini line by line, every file it leads to, all
// three shader stages compiled (locations in the show's own files), every image read through
// the renderer's decoder and limits, and the music decoded to a known length. In the order the
// player meets them.
std::vector<ShowFinding> checkShow(const DemoArchive& archive);

} // namespace brisvale
