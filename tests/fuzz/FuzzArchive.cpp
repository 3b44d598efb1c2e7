// Fuzzes the archive reader with arbitrary container bytes: load, then every lookup and every
// text reader on every entry. Only std::runtime_error (the content messages) may come out;
// anything else, a crash or a sanitizer report is a finding.

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "content/AssetManifest.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "content/ShaderSource.h"
#include "tests/fuzz/FuzzSupport.h"

using brisvale::fuzz::expectOnlyRuntimeErrors;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::shared_ptr<const brisvale::DemoArchive> archive;
    try {
        archive = brisvale::DemoArchive::load(brisvale::fuzz::writeMemoryFile(data, size));
    } catch (const std::runtime_error&) {
        return 0;
    }
    for (const auto& item : archive->entries()) {
        const std::string& key = item.first; // clang 14 cannot capture structured bindings
        if (!archive->contains(key)) {
            std::abort();
        }
        // Streaming (before open fills the cache) and open must agree on content and failure.
        std::optional<std::uint64_t> streamed;
        expectOnlyRuntimeErrors([&] {
            std::uint64_t size = 0;
            archive->stream(key, [&](brisvale::ArchiveBytes piece) { size += piece.size(); });
            streamed = size;
        });
        bool opened = false;
        expectOnlyRuntimeErrors([&] {
            const brisvale::ArchiveBytes first = archive->open(key);
            const brisvale::ArchiveBytes second = archive->open(key);
            if (first.data() != second.data() || first.size() != second.size() ||
                archive->readCopy(key).size() != first.size() || streamed != first.size()) {
                std::abort();
            }
            opened = true;
        });
        if (opened != streamed.has_value()) {
            std::abort();
        }
        expectOnlyRuntimeErrors([&] { brisvale::loadImagePaths(*archive, key); });
        expectOnlyRuntimeErrors([&] {
            std::vector<std::string> stack;
            brisvale::loadMetalSourceWithIncludes(*archive, key, stack);
        });
        expectOnlyRuntimeErrors([&] { brisvale::loadDemoManifest(*archive, key); });
    }
    return 0;
}
