#pragma once

#include <cstdint>
#include <functional>
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

// loadDemoManifest in steps, for a checker that reports every line instead of the first.

// One "key = value" line of a show manifest, key and value trimmed as loadDemoManifest does.
struct DemoManifestLine {
    std::uint32_t number = 0; // 1-based: lines end at line feeds
    std::string_view key;
    std::string_view value;
};

// Hands every key = value line of the manifest text to `visit`, in file order; blank lines,
// comments and lines without "=" are left out, as loadDemoManifest leaves them.
void forEachDemoManifestLine(std::string_view text,
                             const std::function<void(const DemoManifestLine&)>& visit);

// Applies one line to `manifest` as loadDemoManifest does; false for a key it does not know,
// which changes nothing. Throws "Invalid numeric demo manifest value: " + key.
bool applyDemoManifestLine(DemoManifest& manifest, const DemoManifestLine& line);

// loadDemoManifest's checks of the finished record, with its messages and in its order.
void validateDemoManifest(const DemoManifest& manifest);

} // namespace brisvale
