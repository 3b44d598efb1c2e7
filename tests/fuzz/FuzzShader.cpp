// Fuzzes shader include expansion and compilation with arbitrary text made into a small tree of
// files. The input up to the first marker line is "main.glsl"; each line "//>> NAME" starts the
// file NAME, so includes between files, relative names and names that leave the tree are all
// reachable. The tree is packed, loaded, expanded from main.glsl (with its line map) and
// compiled for all three stages, the compiler's messages mapped to the files. Only
// std::runtime_error (the content and renderer messages) may come out; anything else, a crash,
// a hang or a sanitizer report is a finding.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"
#include "content/ShaderSource.h"
#include "render/ShaderCompiler.h"
#include "tests/fuzz/FuzzSupport.h"

namespace {

constexpr std::string_view kRoot = "main.glsl";
constexpr std::string_view kFileMarker = "//>> ";
// A marker line beyond this many files is ordinary text: a few files reach every kind of
// include, and each one more makes every run slower.
constexpr std::size_t kMaxFiles = 8;
constexpr std::uint32_t kSpirvMagic = 0x07230203;

std::vector<brisvale::ArchiveFile> splitIntoFiles(std::string_view text) {
    std::vector<brisvale::ArchiveFile> files{{std::string(kRoot), {}}};
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t newline = text.find('\n', start);
        const std::size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
        const std::string_view line = text.substr(start, end - start);
        if (line.starts_with(kFileMarker) && files.size() < kMaxFiles) {
            std::string_view name = line.substr(kFileMarker.size());
            if (name.ends_with('\n')) {
                name.remove_suffix(1);
            }
            files.push_back({std::string(name), {}});
        } else {
            files.back().bytes.insert(files.back().bytes.end(), line.begin(), line.end());
        }
        start = end;
    }
    return files;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::shared_ptr<const brisvale::DemoArchive> archive;
    try {
        const std::vector<std::uint8_t> container = brisvale::writeArchive(
            splitIntoFiles({reinterpret_cast<const char*>(data), size}),
            {.version = 2, .compression = brisvale::ArchiveCompression::None});
        archive = brisvale::DemoArchive::load(
            brisvale::fuzz::writeMemoryFile(container.data(), container.size()));
    } catch (const std::runtime_error&) {
        return 0; // an empty or repeated name
    }

    std::vector<std::string> includeStack;
    std::string source;
    try {
        source = brisvale::loadMetalSourceWithIncludes(*archive, kRoot, includeStack);
    } catch (const std::runtime_error&) {
        return 0;
    }
    if (!includeStack.empty()) {
        std::abort();
    }
    // The same expansion with its line map: the same text, one origin per line.
    const brisvale::ExpandedShaderSource expanded = brisvale::expandShaderSource(*archive, kRoot);
    if (expanded.text != source ||
        expanded.origins.size() != static_cast<std::size_t>(std::count(source.begin(), source.end(), '\n'))) {
        std::abort();
    }

    brisvale::fuzz::expectOnlyRuntimeErrors([&] {
        const brisvale::CompiledShaders shaders = brisvale::compileSceneShaders(expanded);
        for (const auto* words : {&shaders.vertex, &shaders.fragment, &shaders.compute}) {
            if (words->empty() || words->front() != kSpirvMagic) {
                std::abort();
            }
        }
    });
    return 0;
}
