// The show check of brisvale-pack: reads a show the way the player would, through the same
// content, shader, image and audio code, and lists every problem instead of stopping at the
// first. Nothing here needs a GPU or an audio device.
//
// [SECTION] Findings
// [SECTION] Manifest
// [SECTION] Shader
// [SECTION] Images
// [SECTION] Music
// [SECTION] Check

#include "tools/pack/ShowCheck.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

#include "audio/audio.h"
#include "content/AssetManifest.h"
#include "content/DemoManifest.h"
#include "content/ShaderSource.h"
#include "render/ImageDecode.h"
#include "render/ShaderCompiler.h"

namespace brisvale {
namespace {

constexpr const char* kManifestPath = "demo.ini";
constexpr const char* kNoEnd = "the show would play silent and never end";

// ---------------------------------------------------------------------------------------------
// [SECTION] Findings
// ---------------------------------------------------------------------------------------------

class Findings {
public:
    void error(std::string file, std::uint32_t line, std::string message) {
        list_.push_back({true, std::move(file), line, std::move(message)});
    }
    void warning(std::string file, std::uint32_t line, std::string message) {
        list_.push_back({false, std::move(file), line, std::move(message)});
    }
    std::vector<ShowFinding> take() { return std::move(list_); }

private:
    std::vector<ShowFinding> list_;
};

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Manifest
// ---------------------------------------------------------------------------------------------

// The manifest as the player would read it, and where its path keys stand.
struct ManifestRead {
    DemoManifest manifest;
    std::map<std::string, std::uint32_t, std::less<>> keyLines; // key -> line of its last use

    std::uint32_t lineOf(std::string_view key) const {
        const auto found = keyLines.find(key);
        return found == keyLines.end() ? 0 : found->second;
    }
};

ManifestRead checkManifest(const DemoArchive& archive, Findings& findings) {
    ManifestRead read;
    if (!archive.contains(kManifestPath)) {
        findings.error(kManifestPath, 0,
                       "missing: the show would play \"Quad.metal\" and \"assets.txt\" with no "
                       "music, and never end");
        return read;
    }
    std::string text;
    try {
        text = archive.readText(kManifestPath);
    } catch (const std::runtime_error& error) {
        findings.error(kManifestPath, 0, error.what());
        return read;
    }
    forEachDemoManifestLine(text, [&](const DemoManifestLine& line) {
        try {
            if (!applyDemoManifestLine(read.manifest, line)) {
                findings.warning(kManifestPath, line.number,
                                 "unknown key " + quoted(line.key) + " is ignored");
                return;
            }
            read.keyLines.insert_or_assign(std::string(line.key), line.number);
        } catch (const std::runtime_error& error) {
            findings.error(kManifestPath, line.number, error.what());
        }
    });
    try {
        validateDemoManifest(read.manifest);
    } catch (const std::runtime_error& error) {
        const DemoManifest& manifest = read.manifest;
        std::string empty; // the keys that name no file
        for (const auto& [key, path] :
             {std::pair{"demo.timeline.shader", &manifest.shaderPath},
              std::pair{"demo.timeline.assets", &manifest.assetManifestPath},
              std::pair{"demo.timeline.audio", &manifest.audioPath}}) {
            if (path->empty()) {
                empty += std::string(empty.empty() ? " (missing or empty: " : ", ") + key;
            }
        }
        const std::string message = error.what();
        findings.error(kManifestPath, 0,
                       empty.empty() ? message : message + empty + ")");
    }
    if (read.lineOf("demo.timeline.shader") == 0) {
        findings.warning(kManifestPath, 0,
                         "no demo.timeline.shader: the shader is \"" + read.manifest.shaderPath +
                             "\"");
    }
    return read;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Shader
// ---------------------------------------------------------------------------------------------

// glslang's location at the start of `text` ("0:12: "): the line, and `text` moved past it.
bool takeLocation(std::string_view& text, std::uint32_t& line) {
    if (!text.starts_with("0:")) {
        return false;
    }
    std::size_t end = 2;
    std::uint64_t number = 0;
    while (end < text.size() && end < 12 && text[end] >= '0' && text[end] <= '9') {
        number = number * 10 + static_cast<std::uint64_t>(text[end] - '0');
        ++end;
    }
    if (end == 2 || end >= text.size() || text[end] != ':') {
        return false;
    }
    line = static_cast<std::uint32_t>(number);
    text.remove_prefix(end + 1);
    while (text.starts_with(' ')) {
        text.remove_prefix(1);
    }
    return true;
}

// One finding per compiler error of the compile message, each at the show file and line the
// error points into. The stage stays in front of each message.
void reportCompileError(const std::string& message, const ExpandedShaderSource& source,
                        const std::string& shaderPath, Findings& findings) {
    constexpr std::string_view kPrefix = "Failed to compile Metal shader source: ";
    std::string_view rest = message;
    if (!rest.starts_with(kPrefix)) { // a missing entry function: the message is the whole story
        findings.error(shaderPath, 0, message);
        return;
    }
    rest.remove_prefix(kPrefix.size());
    std::string stage;
    constexpr std::string_view kStage = " stage: ";
    const std::size_t stageEnd = rest.find(kStage);
    if (stageEnd != std::string_view::npos &&
        rest.substr(0, stageEnd).find(' ') == std::string_view::npos) {
        stage = std::string(rest.substr(0, stageEnd + kStage.size()));
        rest.remove_prefix(stageEnd + kStage.size());
    }
    // The errors are joined by "; ", each starting with its location.
    while (!rest.empty()) {
        std::size_t end = std::string_view::npos;
        for (std::size_t at = rest.find("; "); at != std::string_view::npos;
             at = rest.find("; ", at + 2)) {
            std::string_view next = rest.substr(at + 2);
            std::uint32_t ignored = 0;
            if (takeLocation(next, ignored)) {
                end = at;
                break;
            }
        }
        std::string_view piece = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
        std::uint32_t line = 0;
        if (takeLocation(piece, line) && line > 0 && !source.origins.empty()) {
            const SourceOrigin& origin =
                source.origins[std::min<std::size_t>(line, source.origins.size()) - 1];
            findings.error(origin.file, origin.line, stage + std::string(piece));
        } else {
            findings.error(shaderPath, 0, stage + std::string(piece));
        }
    }
}

void checkShader(const DemoArchive& archive, const ManifestRead& read, Findings& findings) {
    const std::string& shaderPath = read.manifest.shaderPath;
    if (shaderPath.empty()) {
        return; // the manifest's error says so
    }
    ExpandedShaderSource source;
    try {
        source = expandShaderSource(archive, shaderPath);
    } catch (const std::runtime_error& error) {
        // The same expansion again for its chain: the file whose include line failed.
        std::vector<std::string> chain;
        try {
            loadMetalSourceWithIncludes(archive, shaderPath, chain);
        } catch (const std::runtime_error&) {
        }
        if (chain.size() >= 2) {
            findings.error(chain[chain.size() - 2], 0, error.what());
        } else {
            findings.error(kManifestPath, read.lineOf("demo.timeline.shader"), error.what());
        }
        return;
    }
    try {
        compileSceneShaders(source.text);
    } catch (const std::runtime_error& error) {
        reportCompileError(error.what(), source, shaderPath, findings);
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Images
// ---------------------------------------------------------------------------------------------

bool isPlainIndex(std::string_view text) {
    if (text.starts_with('+') || text.starts_with('-')) {
        text.remove_prefix(1);
    }
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The images in the renderer's order with the asset manifest line each comes from; warns about
// keys whose index is not what it looks like, and about keys that share an index.
std::vector<std::pair<std::string, std::uint32_t>> imageList(const DemoArchive& archive,
                                                            const ManifestRead& read,
                                                            Findings& findings) {
    const std::string& assetsPath = read.manifest.assetManifestPath;
    struct Key {
        std::string key;
        std::uint32_t line;
        std::string path;
    };
    std::map<std::int64_t, Key> byIndex;
    try {
        forEachImageKey(archive, assetsPath, [&](const ImageKeyLine& line) {
            if (!isPlainIndex(line.indexText)) {
                findings.warning(assetsPath, line.number,
                                 quoted(line.key) + " counts as image index " +
                                     std::to_string(line.index));
            }
            const auto [slot, added] = byIndex.try_emplace(line.index);
            if (!added) {
                findings.warning(assetsPath, line.number,
                                 quoted(line.key) + " replaces " + quoted(slot->second.key) +
                                     " of line " + std::to_string(slot->second.line) +
                                     ": both are image index " + std::to_string(line.index) +
                                     " and only the last one is used");
            }
            slot->second = {std::string(line.key), line.number, line.path};
        });
    } catch (const std::runtime_error& error) {
        if (archive.contains(assetsPath)) {
            findings.error(assetsPath, 0, error.what());
        } else {
            findings.error(kManifestPath, read.lineOf("demo.timeline.assets"), error.what());
        }
        return {};
    }
    if (byIndex.empty()) {
        findings.error(assetsPath, 0, "Asset manifest does not define any image paths");
    }
    std::vector<std::pair<std::string, std::uint32_t>> images;
    for (auto& [index, key] : byIndex) {
        images.emplace_back(std::move(key.path), key.line);
    }
    return images;
}

void checkImages(const DemoArchive& archive, const ManifestRead& read, Findings& findings) {
    const std::string& assetsPath = read.manifest.assetManifestPath;
    if (assetsPath.empty()) {
        return; // the manifest's error says so
    }
    std::uint64_t declaredPixels = 0;
    bool overBudget = false;
    std::set<std::string> seen; // an image listed twice is read once
    for (const auto& [path, line] : imageList(archive, read, findings)) {
        if (!seen.insert(path).second) {
            continue;
        }
        ArchiveBytes bytes;
        try {
            bytes = archive.open(path);
        } catch (const std::runtime_error& error) {
            // A missing image is the asset manifest line's fault; a damaged one the file's own.
            const bool missing = !archive.contains(path);
            findings.error(missing ? assetsPath : path, missing ? line : 0, error.what());
            continue;
        }
        try {
            const ImageSize size = readImageSize(bytes.data(), bytes.size(), path);
            declaredPixels += std::uint64_t{size.width} * size.height;
            if (declaredPixels > kImageDecodeBudgetPixels && !overBudget) {
                overBudget = true;
                findings.error(path, 0,
                               "Images together are larger than " +
                                   std::to_string(kImageDecodeBudgetPixels) + " pixels: " + path);
            }
            // Past the budget the player decodes nothing, and neither does the check.
            if (!overBudget) {
                decodeImageToSquare(bytes.data(), bytes.size(), kImageLayerEdge, path);
            }
        } catch (const std::runtime_error& error) {
            findings.error(path, 0, error.what());
        }
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Music
// ---------------------------------------------------------------------------------------------

void checkMusic(const DemoArchive& archive, const ManifestRead& read, Findings& findings) {
    namespace audio = pelora::gamedev::core;
    const std::string& audioPath = read.manifest.audioPath;
    if (audioPath.empty()) {
        return; // the manifest's error says so
    }
    ArchiveBytes music;
    try {
        music = archive.open(audioPath);
    } catch (const std::runtime_error& error) {
        const bool missing = !archive.contains(audioPath);
        findings.error(missing ? kManifestPath : audioPath,
                       missing ? read.lineOf("demo.timeline.audio") : 0,
                       std::string(error.what()) + ": " + kNoEnd);
        return;
    }
    // The audio library takes a block that free() releases, whatever the result.
    void* block = std::malloc(music.empty() ? 1 : music.size());
    if (block == nullptr) {
        findings.error(audioPath, 0, "no memory to decode the music");
        return;
    }
    std::memcpy(block, music.data(), music.size());
    audio::audio_song song{};
    const auto size = static_cast<std::int64_t>(music.size());
    if (audio::audio_song_load_from_memory(&song, block, size) != 0) {
        findings.error(audioPath, 0, std::string("the music does not decode: ") + kNoEnd);
    } else if (!(audio::audio_song_duration(&song) > 0.0)) {
        findings.error(audioPath, 0, "the music has no known length: the show would never end");
    }
    audio::audio_song_destroy(&song);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Check
// ---------------------------------------------------------------------------------------------

std::vector<ShowFinding> checkShow(const DemoArchive& archive) {
    Findings findings;
    const ManifestRead read = checkManifest(archive, findings);
    checkShader(archive, read, findings);
    checkImages(archive, read, findings);
    checkMusic(archive, read, findings);
    return findings.take();
}

} // namespace brisvale
