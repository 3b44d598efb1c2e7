#include "content/DemoManifest.h"

#include <stdexcept>

#include "content/ArchivePath.h"

namespace brisvale {
namespace {

constexpr const char* kInvalidNumber = "Invalid numeric demo manifest value: ";
constexpr const char* kMissingPaths =
    "Demo manifest must define shader, asset manifest, and audio paths";
constexpr const char* kZeroDefaults = "Demo manifest output defaults must be non-zero";

// The manifest is bytes, not text: only these three count as white space.
bool isManifestSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view trim(std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isManifestSpace(text[begin])) {
        ++begin;
    }
    while (end > begin && isManifestSpace(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

std::uint32_t parseU32(std::string_view value, std::string_view key) {
    if (value.empty()) {
        throw std::runtime_error(kInvalidNumber + std::string(key));
    }
    std::uint64_t number = 0;
    for (char c : value) {
        if (c < '0' || c > '9') {
            throw std::runtime_error(kInvalidNumber + std::string(key));
        }
        number = number * 10 + static_cast<std::uint64_t>(c - '0');
        // Checked per digit, so any number of leading zeros is fine and nothing overflows.
        if (number > 0xFFFFFFFFu) {
            throw std::runtime_error(kInvalidNumber + std::string(key));
        }
    }
    return static_cast<std::uint32_t>(number);
}

bool assignManifestValue(DemoManifest& manifest, std::string_view key, std::string_view value) {
    if (key == "demo.name") {
        manifest.name = value;
    } else if (key == "demo.timeline.shader") {
        manifest.shaderPath = normalizeArchivePath(value);
    } else if (key == "demo.timeline.assets") {
        manifest.assetManifestPath = normalizeArchivePath(value);
    } else if (key == "demo.timeline.audio") {
        manifest.audioPath = normalizeArchivePath(value);
    } else if (key == "demo.output.width") {
        manifest.defaultWidth = parseU32(value, key);
    } else if (key == "demo.output.height") {
        manifest.defaultHeight = parseU32(value, key);
    } else if (key == "demo.output.fps") {
        manifest.defaultFps = parseU32(value, key);
    } else {
        return false;
    }
    return true;
}

} // namespace

void forEachDemoManifestLine(std::string_view text,
                             const std::function<void(const DemoManifestLine&)>& visit) {
    std::size_t cursor = 0;
    std::uint32_t number = 0; // a manifest of 4 GiB of line feeds is beyond any archive
    while (true) {
        ++number;
        const std::size_t lineFeed = text.find('\n', cursor);
        const std::size_t lineEnd = lineFeed == std::string_view::npos ? text.size() : lineFeed;
        const std::string_view line = trim(text.substr(cursor, lineEnd - cursor));
        const std::size_t equals = line.find('=');
        if (!line.empty() && line[0] != '#' && equals != std::string_view::npos) {
            visit({number, trim(line.substr(0, equals)), trim(line.substr(equals + 1))});
        }
        if (lineFeed == std::string_view::npos) {
            break;
        }
        cursor = lineFeed + 1;
    }
}

bool applyDemoManifestLine(DemoManifest& manifest, const DemoManifestLine& line) {
    return assignManifestValue(manifest, line.key, line.value);
}

void validateDemoManifest(const DemoManifest& manifest) {
    if (manifest.shaderPath.empty() || manifest.assetManifestPath.empty() ||
        manifest.audioPath.empty()) {
        throw std::runtime_error(kMissingPaths);
    }
    if (manifest.defaultWidth == 0 || manifest.defaultHeight == 0 || manifest.defaultFps == 0) {
        throw std::runtime_error(kZeroDefaults);
    }
}

DemoManifest loadDemoManifest(const DemoArchive& archive, std::string_view path) {
    DemoManifest manifest;
    if (!archive.contains(path)) {
        return manifest;
    }
    const std::string text = archive.readText(path);
    forEachDemoManifestLine(text, [&](const DemoManifestLine& line) {
        applyDemoManifestLine(manifest, line);
    });
    validateDemoManifest(manifest);
    return manifest;
}

} // namespace brisvale
