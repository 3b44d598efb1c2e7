#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "content/DemoArchive.h"

namespace brisvale {

// The show settings from `demo.ini`. The three paths are canonical archive paths.
struct DemoManifest {
    std::string name = "Demo";
    std::string shaderPath = "Quad.metal";
    std::string assetManifestPath = "assets.txt";
    std::string audioPath;
    std::uint32_t defaultWidth = 1920;
    std::uint32_t defaultHeight = 1080;
    std::uint32_t defaultFps = 60;
};

// Reads the show manifest at `path` in `archive`. A missing manifest gives the defaults as they
// are; a present one must name all three paths and non-zero output defaults. Archive errors
// pass through unchanged.
DemoManifest loadDemoManifest(const DemoArchive& archive, std::string_view path);

} // namespace brisvale
